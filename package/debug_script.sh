#!/bin/sh
# Makes a crash report: an archive of the device's state and of core dumps of some of its processes.
# Called by the daemon, which starts it without any descriptor and waits for it:
#
#   debug_script.sh ARCHIVE
#
# What tells of this moment is collected at once. The core dumps, which stop a process each, and the
# packing go on behind the script's end. The daemon watches the generator and kills one that hangs.
# The archive appears whole; FAILED.txt in it names what could not be collected.

# With --show it calls itself for one item, so that a time limit holds for that.
[ "${1:-}" = --show ] || exec </dev/null >/dev/null 2>&1

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"
log_tag=Vandrel-silent # a rule on errors would make the next report of them

# --- What is collected

missed=0 # set by an item of which a part could not be collected

system_log() {
    cat /usr/local/vandrel.log.1 /usr/local/vandrel.log /var/log/*.log 2>/dev/null
    return 0
}
process_list() {
    ps || missed=1
    echo
    top -b -n 1 || missed=1
    return "$missed"
}
# each_process COMMAND: its output under a heading for each process. One may end meanwhile.
each_process() {
    for process in /proc/[0-9]*; do
        printf '\n----- %s %s -----\n' "${process#/proc/}" "$(tr '\0' ' ' <"$process/cmdline")"
        "$1" "$process"
    done 2>/dev/null
    return 0
}
list_descriptors() { ls -l "$1/fd"; }
show_maps() { cat "$1/maps"; }
network_state() {
    ip address || missed=1
    ip route || missed=1
    netstat -a -n || missed=1
    cat /proc/net/dev /proc/net/sockstat || missed=1
    cat /etc/resolv.conf 2>/dev/null # need not be there
    return "$missed"
}
package_list() {
    for package in /usr/local/packages/*/; do
        printf '\n----- %s -----\n' "$package"
        ls -l "$package"
        cat "$package/package.conf"
    done 2>/dev/null
    return 0
}
memory_and_storages() {
    cat /proc/meminfo /proc/loadavg /proc/mounts || missed=1
    df -k || missed=1
    return "$missed"
}

if [ "${1:-}" = --show ]; then
    shift
    "$@"
    exit
fi

# --- Collecting it

archive=${1:-}
folder=${archive%/*}
name=${archive##*/}
name=${name%.tgz}
processes=$PACKAGE/conf/crash_report_processes
item_limit=60 # seconds for what should take one

# The name ends in that of the time zone, which may be "+04".
case $name in
'' | .* | -* | *[!A-Za-z0-9._+-]*) is_usable=no ;;
*) is_usable=yes ;;
esac
if [ $is_usable = no ] || ! [ -d "$folder" ]; then
    warn "no crash report can be made as '$archive'"
    exit 1
fi
# Made and packed here. What is left of it when the power or the storage goes is swept when the session
# is packed.
place=$folder/.tmp_$name
work=$place/$name
mkdir -p "$work" || {
    warn "no crash report can be made in $folder"
    exit 1
}

failed() { # ITEM WHY
    echo "$1: $2" >>"$work/FAILED.txt"
}

# item FILE COMMAND...: what the command prints.
item() {
    file=$1
    shift
    timeout "$item_limit" "$@" >"$work/$file" 2>"$place/errors"
    status=$?
    if [ "$status" -ne 0 ] || [ ! -s "$work/$file" ]; then
        failed "$file" "$(tail -n 1 "$place/errors") (status $status)"
    fi
}

item process_list.txt "$0" --show process_list
item system_log.txt "$0" --show system_log
item open_files.txt "$0" --show each_process list_descriptors
item memory_maps.txt "$0" --show each_process show_maps
item network_state.txt "$0" --show network_state
item package_list.txt "$0" --show package_list
item memory_and_storages.txt "$0" --show memory_and_storages
item server_report.txt gen_serverreport.sh

# core PROCESS PID: its memory, packed while it is read.
core() {
    file=core.$1.$2.gz
    {
        dcore -c /dev/stdout "$2" 2>"$place/errors"
        echo $? >"$place/status"
    } | gzip -1 >"$work/$file"
    status=$(cat "$place/status")
    [ "$status" = 0 ] || failed "$file" "$(tail -n 1 "$place/errors") (status $status)"
}

dump_processes() {
    # Reports can be asked for faster than a slow generator makes their dumps.
    if pidof dcore >/dev/null; then
        failed "core dumps" "those of an earlier report are still being made"
        return
    fi
    while read -r process; do
        case $process in '' | '#'*) continue ;; esac
        pids=$(pidof "$process") || failed "core of $process" "no such process"
        for pid in $pids; do
            if [ -e "$folder/.tmp_end" ]; then # the daemon waits for the archive
                failed "core.$process.$pid.gz" "the session was stopped"
                continue
            fi
            core "$process" "$pid"
        done
    done <"$processes"
}

dump_and_pack() {
    dump_processes
    if tar -C "$place" -czf "$place/archive" "$name" && flush "$place/archive" &&
        mv "$place/archive" "$archive"; then
        flush "$folder"
    else
        warn "the crash report $name can not be written"
    fi
    rm -rf "$place"
}

dump_and_pack &
