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

take_time_stamp
# shellcheck disable=SC2154 # process_folder: common.sh
append_rows "$1" vmstatus.csv "$header" "$(awk -v stamp="$stamp" "$process_folder"'
BEGIN {
    count = split("State Threads VmPeak VmSize VmHWM VmRSS RssAnon RssFile RssShmem VmData VmStk" \
                  " VmExe VmLib VmPTE VmSwap", keys, " ")
    for (i = 1; i < ARGC; ++i) {
        pid = substr(ARGV[i], 7)
        folder = process_folder(pid)
        if (folder == "") continue
        path = ARGV[i] "/status" # "VmRSS:	    7236 kB"
        status = ""
        RS = "" # all lines at once
        while ((getline lines < path) > 0) status = status "\n" lines
        RS = "\n"
        close(path)
        if (!index(status, "\nVmSize:")) continue # it ended
        row = stamp
        for (k = 1; k <= count; ++k) {
            at = index(status, "\n" keys[k] ":")
            word[1] = ""
            if (at) split(substr(status, at + length(keys[k]) + 2, 40), word)
            row = row "," word[1]
        }
        print folder " " row
    }
    exit
}' /proc/[0-9]*)"
