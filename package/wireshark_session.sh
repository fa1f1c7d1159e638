#!/bin/sh
# Starts and stops what records a trace session. Called by the daemon:
#
#   wireshark_session.sh RECORDING STORAGE SERIAL start   in the background
#   wireshark_session.sh FOLDER SERIAL RECORDING stop     waited for, once the capture is repaired
#   wireshark_session.sh FOLDER SERIAL RECORDING cut      waited for, before it is repaired, then stop
#
# start makes /var/spool/storage/STORAGE/Vandrel_SERIAL/RECORDING with wireshark_signature.txt, which
# tells the folder from others, and captures into pcapdump.pcap there; what an earlier trace of that
# name recorded is kept in earlier_STAMP. A device with a recorder
# ("videorecord FILE", until it is ended) also records its video into video.mkv.
# stop ends the recording, notes the end in the signature, packs the folder into
# wireshark_archive.zip and updates the index of sessions; zip_info.txt is there meanwhile.
# cut is for a trace that a restart or its storage's loss has ended: its end is when the capture was
# last written.

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
    if ! is_plain "$1" || ! is_plain "$2" || ! is_serial "$3" || ! is_mounted "$STORAGES/$2"; then
        warn "No trace in ${2:-no storage}: it is not there"
        exit 1
    fi
    folder=$STORAGES/$2/Vandrel_$3/$1
    if ! leads_there "$folder/."; then
        warn "No trace in $2: a link stands in the place of a folder"
        exit 1
    fi
    if [ -e "$folder" ] && ! [ -f "$folder/wireshark_signature.txt" ]; then
        warn "No trace in $2: $1 is the name of something else"
        exit 1
    fi
    if ! mkdir -p "$folder" || ! can_append "$folder/wireshark_signature.txt" ||
        ! printf 'Start:%s\n' "$(date '+%Y-%m-%d %H:%M:%S')" 2>/dev/null \
            >"$folder/wireshark_signature.txt"; then
        rmdir "$folder" 2>/dev/null # a folder without a signature is no trace's
        warn "No trace in $2: its folder can not be made"
        exit 1
    fi
    keep_earlier "$folder"
    rm -f "$folder/wireshark_archive.zip"
    # Each packet is handed over and written as it comes, whole (65535 is what the format allows), as
    # the user that owns the storage.
    setsid pcapdump -i eth0 --immediate-mode -U -s 65535 -Z root -w "$folder/pcapdump.pcap" \
        </dev/null >/dev/null 2>&1 &
    if command -v videorecord >/dev/null; then
        setsid videorecord "$folder/video.mkv" </dev/null >/dev/null 2>&1 &
    fi
    "$PACKAGE/collect_wireshark_sessions.sh" "$3"
}

is_trace() { [ -f "$1/wireshark_signature.txt" ] && can_append "$1/wireshark_signature.txt"; }

# note_end FOLDER TIME: in its signature, unless it is there.
note_end() {
    grep -q '^End:' "$1/wireshark_signature.txt" ||
        printf 'End:%s\n' "$2" >>"$1/wireshark_signature.txt"
}

note_cut() {
    is_trace "$1" || exit 0
    last=$1/pcapdump.pcap
    [ -f "$last" ] || last=$1/wireshark_signature.txt
    note_end "$1" "$(date -r "$last" '+%Y-%m-%d %H:%M:%S')"
}

stop_recording() {
    is_trace "$1" || exit 0
    if command -v videorecord >/dev/null; then
        killall videorecord 2>/dev/null
    fi
    note_end "$1" "$(date '+%Y-%m-%d %H:%M:%S')"
    pack_trace "$1"
    "$PACKAGE/collect_wireshark_sessions.sh" "$2"
}

case ${4:-} in
start) start_recording "$1" "$2" "$3" ;;
stop) stop_recording "$1" "$2" ;;
cut) note_cut "$1" ;;
*) exit 1 ;;
esac
