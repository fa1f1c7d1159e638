#!/bin/sh
# Starts and stops what records a trace session. Called by the daemon:
#
#   wireshark_session.sh RECORDING STORAGE SERIAL start   in the background
#   wireshark_session.sh FOLDER SERIAL RECORDING stop     waited for, once the capture is repaired
#
# start makes /var/spool/storage/STORAGE/Vandrel_SERIAL/RECORDING with wireshark_signature.txt, which
# tells the folder from others, and captures into pcapdump.pcap there; what an earlier trace of that
# name recorded is kept in earlier_STAMP. A device with a recorder
# ("videorecord FILE", until it is ended) also records its video into video.mkv.
# stop ends the recording, notes the end in the signature, packs the folder into
# wireshark_archive.zip and updates the index of sessions; zip_info.txt is there meanwhile.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

# keep_earlier FOLDER: puts what an earlier trace of that name left into a folder of its own.
keep_earlier() {
    earlier=$1/earlier_$(date '+%Y%m%d_%H%M%S')
    for file in pcapdump.pcap trace.pcap repair.log note.txt video.mkv; do
        { [ -e "$1/$file" ] || [ -h "$1/$file" ]; } && mkdir -p "$earlier" && mv "$1/$file" "$earlier/"
    done
    return 0
}

start_recording() {
    if ! is_plain "$1" || ! is_plain "$2" || ! is_plain "$3" || ! is_mounted "$STORAGES/$2"; then
        warn "No trace in ${2:-no storage}: it is not there"
        exit 1
    fi
    folder=$STORAGES/$2/Vandrel_$3/$1
    if ! mkdir -p "$folder" || ! can_append "$folder/wireshark_signature.txt" ||
        ! printf 'Start:%s\n' "$(date '+%Y-%m-%d %H:%M:%S')" 2>/dev/null \
            >"$folder/wireshark_signature.txt"; then
        warn "No trace in $2: its folder can not be made"
        exit 1
    fi
    keep_earlier "$folder"
    rm -f "$folder/wireshark_archive.zip"
    # Each packet is written as it comes (-U), whole (-s 0), as the user that owns the storage.
    setsid pcapdump -i eth0 -U -s 0 -Z root -w "$folder/pcapdump.pcap" </dev/null >/dev/null 2>&1 &
    if command -v videorecord >/dev/null; then
        setsid videorecord "$folder/video.mkv" </dev/null >/dev/null 2>&1 &
    fi
    "$PACKAGE/collect_wireshark_sessions.sh" "$3"
}

stop_recording() {
    [ -f "$1/wireshark_signature.txt" ] && can_append "$1/wireshark_signature.txt" || exit 0
    if command -v videorecord >/dev/null; then
        killall videorecord 2>/dev/null
    fi
    printf 'End:%s\n' "$(date '+%Y-%m-%d %H:%M:%S')" >>"$1/wireshark_signature.txt"
    pack_trace "$1"
    "$PACKAGE/collect_wireshark_sessions.sh" "$2"
}

case ${4:-} in
start) start_recording "$1" "$2" "$3" ;;
stop) stop_recording "$1" "$2" ;;
*) exit 1 ;;
esac
