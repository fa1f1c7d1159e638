#!/bin/sh
# Creates a monitoring session. Called by the daemon when one is activated, which waits for it:
#
#   monitory_creator.sh STORAGE SERIAL FOLDER START_TIME IMAGE_INTERVAL [CRASH_INTERVAL]
#
# STORAGE is "localdata" for the internal storage, else a name below /var/spool/storage; FOLDER the
# session's name, such as 20230531_08_27_40; IMAGE_INTERVAL may be empty; CRASH_INTERVAL is in
# minutes. It writes
#
#   ROOT/FOLDER/                            the session's tree, with .signature; ROOT is localdata or
#                                           /var/spool/storage/STORAGE/Vandrel_SERIAL
#   localdata/current_monitoring_session.txt   what the daemon resumes after a restart
#
# The tree is made under another name and renamed once it is on the storage, and the file that names
# it comes last: whenever the power goes, there is a complete session or none. If something fails,
# nothing is left, and a line says so in the system log.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"
umask 077 # it may hold cores, and the passwords in what is logged of the HTTP API

storage=$1
serial=$2
folder=$3
start_time=$4
image_interval=$5
crash_interval=${6:-0}

current=$LOCALDATA/current_monitoring_session.txt
made= # what is to be removed if it does not come to an end

fail() {
    [ -n "$made" ] && rm -rf -- "$made"
    warn "No session created in ${storage:-no storage}: $1"
    exit 1
}

make_tree() {
    basic=$1/system_monitoring
    mkdir -p "$1/coredumps" "$1/network_device_test" \
        "$basic/monitoring_basic/Server_Reports" "$basic/monitoring_basic/Crash_Reports" \
        "$basic/monitoring_koral/logfiles" "$basic/monitoring_koral/others" \
        "$basic/monitoring_vela_configs" "$basic/monitoring_devicetest" \
        "$basic/monitoring_interrupts" "$basic/monitoring_snapshots" "$basic/monitoring_vmstatus" \
        "$basic/monitoring_topstatus" "$basic/monitoring_kernel" "$basic/monitoring_environment" \
        "$basic/monitoring_self" "$basic/monitoring_network" "$basic/monitoring_streams" \
        "$basic/monitoring_radar" "$basic/monitoring_meminfo" "$basic/monitoring_load" \
        "$basic/monitoring_metadata" "$basic/monitoring_vela" "$basic/monitoring_slabinfo" \
        "$basic/monitoring_onvif" \
        2>/dev/null || return 1
    [ -e "$1/.signature" ] || printf '%s\n' "Serial: $serial" "Storage: $storage" \
        "Folder: $folder" "Start: $start_time" 2>/dev/null >"$1/.signature"
}

# The internal storage's root has no serial number in it.
if ! is_plain "$storage" || ! is_stamp "$folder" ||
    { [ "$storage" != localdata ] && ! is_serial "$serial"; }; then
    fail "bad arguments"
fi
case $start_time$image_interval$crash_interval in
*[[:cntrl:]]*) fail "bad arguments" ;;
esac
if [ "$storage" = localdata ]; then
    root=$LOCALDATA
else
    root=$STORAGES/$storage/Vandrel_$serial
fi
session=$root/$folder

check_mount() {
    [ "$storage" = localdata ] || is_mounted "$STORAGES/$storage" || fail "it is not mounted"
}

check_mount
mkdir -p "$root" 2>/dev/null || fail "the folder $root can not be made"
rm -rf -- "$root"/.new_[0-9]* # of a start that the power went away from
if [ -d "$session" ]; then
    # Of a start within the same second that did not get far: nothing in it is to be lost.
    make_tree "$session" || fail "its folders can not be made"
else
    made=$root/.new_$folder
    make_tree "$made" || fail "its folders can not be made"
    sync -f "$made" 2>/dev/null || sync
    mv "$made" "$session" 2>/dev/null || fail "its folder can not be renamed"
    made=$session
    flush "$root"
fi
check_mount # it may have gone meanwhile

sweep_beside "$current"
printf '%s\n' "SECS:$storage" "ACTI:$folder" "TIME:$start_time" "CRAS:$crash_interval" \
    "CAPT:$image_interval" | replace_file "$current" || fail "$current can not be written"
