#!/bin/sh
# Takes one sample of every process's memory. Called by the daemon every second minute of a session,
# in the background, one at a time:
#
#   vmstatus_monitoring.sh DIRECTORY
#
# with the session's folder system_monitoring/monitoring_vmstatus. It appends a row to
# NAME/PID/vmstatus.csv in it for each process, from /proc/PID/status. Sizes are in kB; what a
# process's status does not have is left empty. Without the directory it does nothing.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ -d "$1" ] || exit 0
mend_after_boot "$1"

header=DATE,TIME,STATE,THREADS,VM_PEAK,VM_SIZE,VM_HWM,VM_RSS,RSS_ANON,RSS_FILE,RSS_SHMEM,VM_DATA
header=$header,VM_STACK,VM_EXE,VM_LIB,VM_PTE,VM_SWAP

# shellcheck disable=SC2154 # process_folder: common.sh
awk -v stamp="$(time_stamp)" -v uptime="$(uptime_s)" "$process_folder"'
BEGIN {
    count = split("State Threads VmPeak VmSize VmHWM VmRSS RssAnon RssFile RssShmem VmData VmStk" \
                  " VmExe VmLib VmPTE VmSwap", keys, " ")
    for (i = 1; i < ARGC; ++i) {
        pid = substr(ARGV[i], 7)
        folder = process_folder(pid)
        if (folder == "") continue
        path = ARGV[i] "/status" # "VmRSS:	    7236 kB"
        split("", value)
        while ((getline line < path) > 0) {
            split(line, word)
            sub(/:$/, "", word[1])
            value[word[1]] = word[2]
        }
        close(path)
        if (value["VmSize"] == "") continue # it ended
        row = stamp
        for (k = 1; k <= count; ++k) row = row "," value[keys[k]]
        print folder "\t" row
    }
    exit
}' /proc/[0-9]* | append_rows "$1" vmstatus.csv "$header"
