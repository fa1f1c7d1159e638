#!/bin/sh
# Lists this device's trace sessions on all storages. Called by the daemon, in the background at its
# start and waited for when one is removed, and by wireshark_session.sh:
#
#   collect_wireshark_sessions.sh SERIAL
#
# It replaces localdata/found_wireshark_sessions.txt with three lines for each session, the last only
# once it has ended:
#
#   S:2026-11-21 05:50:48
#   P:/var/spool/storage/SD_DISK/Vandrel_02A5C41E90B7/rec1
#   E:2026-11-21 05:52:10

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

serial=${1:-}
index=$LOCALDATA/found_wireshark_sessions.txt

is_serial "$serial" || exit 1
sweep_beside "$index"

# time_of KEY FILE: what can be shown of the signature's last line with that key.
time_of() {
    sed -n "s/^$1:\([0-9: -]\{1,30\}\)$/\1/p" "$2" | tail -n 1
}

put_sessions() {
    for signature in "$STORAGES"/*/"Vandrel_$serial"/*/wireshark_signature.txt; do
        folder=${signature%/*}
        if [ -h "$signature" ] || [ -h "$folder" ] || ! [ -f "$signature" ] ||
            ! is_plain "${folder##*/}"; then
            continue
        fi
        start=$(time_of Start "$signature")
        end=$(time_of End "$signature")
        printf 'S:%s\nP:%s\n' "${start:-Unknown}" "$folder"
        if [ -n "$end" ]; then printf 'E:%s\n' "$end"; fi
    done
}

put_sessions | replace_file "$index" || warn "The list of traces can not be written"
