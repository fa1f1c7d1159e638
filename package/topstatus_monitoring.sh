#!/bin/sh
# Takes one sample of what every process uses of memory and processor. Called by the daemon every
# second minute of a session, in the background, one at a time:
#
#   topstatus_monitoring.sh DIRECTORY
#
# with the session's folder system_monitoring/monitoring_topstatus. It appends a row to
# NAME/PID/topstatus.csv in it for each process, from `top -n 1 -b`. VSZ is in kB, the shares are in
# percent. Without the directory it does nothing.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ -d "$1" ] || exit 0
mend_after_boot "$1"

#   PID  PPID USER     STAT   VSZ %VSZ %CPU COMMAND
#    29     2 root     S     155m   1%   0% /usr/local/packages/Vandrel/Vandrel
# STAT may hold blanks, and some devices have the processor's number between the shares.
take_time_stamp
# shellcheck disable=SC2154 # process_folder: common.sh
rows=$(top -n 1 -b | awk -v stamp="$stamp" "$process_folder"'
$1 ~ /^[0-9]+$/ && $2 ~ /^[0-9]+$/ {
    memory = 5
    while (memory < NF && $memory !~ /^[0-9.]+%$/) ++memory
    processor = memory + 1
    while (processor < NF && $processor !~ /^[0-9.]+%$/) ++processor
    if (memory < 6 || processor > NF) next
    folder = process_folder($1)
    if (folder == "") next
    state = $4
    for (i = 5; i < memory - 1; ++i) state = state $i
    size = $(memory - 1)
    if (size ~ /m$/) size *= 1024
    else if (size ~ /g$/) size *= 1024 * 1024
    print folder " " stamp "," state "," size + 0 "," $memory + 0 "," $processor + 0
}')
append_rows "$1" topstatus.csv 'DATE,TIME,STATE,VSZ,%VSZ,%CPU' "$rows"
