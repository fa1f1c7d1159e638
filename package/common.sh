#!/bin/sh
# Functions of the package's scripts, which read this file; it is not run by itself.
# shellcheck disable=SC2034 # the variables are for the scripts

LC_ALL=C
export LC_ALL
umask 022

PACKAGE=/usr/local/packages/Vandrel
LOCALDATA=$PACKAGE/localdata
STORAGES=/var/spool/storage

# warn TEXT: one line for the system log, where there is a logger. Under "Vandrel-silent" no trigger
# takes notice of it.
warn() {
    logger -t "${log_tag:-Vandrel}" -p user.warning -- "${0##*/}: $1" 2>/dev/null || :
}

# is_plain NAME: whether it can be one part of a path, whatever command line it comes into.
is_plain() {
    case $1 in
    '' | .* | -* | *[!A-Za-z0-9._-]*) return 1 ;;
    esac
}

# is_serial TEXT: whether it can be a camera's serial number, as the daemon takes it.
is_serial() {
    case $1 in
    '' | *[!A-Za-z0-9]*) return 1 ;;
    esac
}

# is_stamp NAME: whether it has the form of a session's folder, 20230531_08_27_40.
is_stamp() {
    case $1 in
    [0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9]_[0-9][0-9]_[0-9][0-9]_[0-9][0-9]) ;;
    *) return 1 ;;
    esac
}

# is_mounted DIRECTORY: whether a file system is mounted there. An ejected storage leaves its empty
# mount point behind, and what is written into that fills the device's own memory.
is_mounted() {
    mount_point=$(readlink -f -- "$1") || return 1
    while read -r _ mounted_at _; do
        [ "$mounted_at" = "$mount_point" ] && return 0
    done </proc/mounts
    return 1
}

# tries TENTHS COMMAND...: runs the command until it succeeds, for so many tenths of a second.
tries() {
    tries_left=$1
    shift
    until "$@"; do
        tries_left=$((tries_left - 1))
        [ "$tries_left" -gt 0 ] || return 1
        sleep 0.1
    done
}

# flush FILE: returns when its content is on the storage.
flush() {
    sync "$1" 2>/dev/null || sync
}

# replace_file FILE: puts what it reads in the file's place, whole or not at all. It is written
# beside, under a name with this process's number. A file that has that content already is left
# alone, which spares the device's flash.
replace_file() {
    beside=${1%/*}/.${1##*/}.$$
    if cat >"$beside" 2>/dev/null; then
        if [ -f "$1" ] && cmp -s "$beside" "$1"; then
            rm -f "$beside"
            return 0
        fi
        if ! [ -d "$1" ] && flush "$beside" && mv -f "$beside" "$1"; then
            flush "${1%/*}"
            return 0
        fi
    fi
    rm -f "$beside"
    return 1
}

# sweep_beside FILE: removes what processes that ended left of their replace_file.
sweep_beside() {
    for beside in "${1%/*}/.${1##*/}".[0-9]*; do
        [ -e "$beside" ] && ! [ -d "/proc/${beside##*.}" ] && rm -f "$beside"
    done
    return 0
}

# leads_there PATH: whether no folder of the path below a storage's own is a link.
leads_there() {
    case $1 in
    "$STORAGES"/*/*) ;;
    *) return 0 ;;
    esac
    part=${1%/*}
    while [ "${part%/*}" != "$STORAGES" ] && [ -n "$part" ]; do
        ! [ -h "$part" ] || return 1
        part=${part%/*}
    done
}

# is_file_or_nothing PATH: whether rows can go there: on a card or a share it could be a pipe, which
# waits for its reader, or a link to a file of the camera.
is_file_or_nothing() {
    ! [ -h "$1" ] && { [ -f "$1" ] || ! [ -e "$1" ]; }
}

# can_append FILE: the same with the folders above it, which could be links, too.
can_append() {
    is_file_or_nothing "$1" && leads_there "$1"
}

# cut_back FILE: takes back what a full storage or a power cut left of a row at its end.
cut_back() {
    if ! can_append "$1" || ! [ -s "$1" ] || [ "$(tail -c 1 "$1" | tr -d '\n' | wc -c)" -eq 0 ]; then
        return
    fi
    rest=$(($(tail -n 1 "$1" | wc -c)))
    dd if=/dev/null of="$1" bs=1 seek=$(($(wc -c <"$1") - rest)) 2>/dev/null
}

# put_row FILE HEADER ROW: appends the row to a file that is known to be one, to a new one behind the
# header; all of it or nothing.
put_row() {
    if [ -s "$1" ]; then
        printf '%s\n' "$3" >>"$1" && return 0
    else
        printf '%s\n%s\n' "$2" "$3" >>"$1" && return 0
    fi
    cut_back "$1"
    return 1
}

# append_row FILE HEADER ROW: the same for any file. Its folder has to be there.
append_row() {
    can_append "$1" && { put_row "$@"; } 2>/dev/null
}

# append_rows DIRECTORY FILE HEADER ROWS: appends the row of each line "FOLDER/SUBFOLDER ROW" to
# DIRECTORY/FOLDER/SUBFOLDER/FILE. Makes the folders, but never DIRECTORY itself: that may have gone
# with its storage. What can't be written is said once, until a sample is whole again. Without a
# process or a read for each row: there are hundreds.
append_rows() {
    rows_in=$1 rows_file=$2 rows_header=$3 rows_failed=
    IFS='
'
    set -f
    # shellcheck disable=SC2086 # split at the line ends
    set -- $4
    set +f
    { leads_there "$rows_in/." && make_folders "$@" && put_rows "$@"; } 2>/dev/null ||
        rows_failed=${rows_failed:-$rows_file}
    unset IFS
    said=/run/Vandrel_failing_${rows_file%.csv}
    if [ -z "$rows_failed" ]; then
        ! [ -e "$said" ] || rm -f "$said"
    elif [ -d "$rows_in" ] && ! [ -e "$said" ]; then
        : >"$said"
        warn "$rows_failed can not be written"
    fi
}

# The folders of append_rows that are missing, all at once.
make_folders() {
    missing=
    for line; do
        folder=$rows_in/${line%% *}
        [ -d "$folder" ] || [ -h "${folder%/*}" ] || missing="$missing${folder%/*}
$folder
"
    done
    # shellcheck disable=SC2086 # split at the line ends
    [ -z "$missing" ] || mkdir $missing || :
}

put_rows() {
    for line; do
        folder=$rows_in/${line%% *}
        if [ -h "${folder%/*}" ] || [ -h "$folder" ] || ! is_file_or_nothing "$folder/$rows_file" ||
            ! put_row "$folder/$rows_file" "$rows_header" "${line#* }"; then
            rows_failed=${rows_failed:-${line%% *}/$rows_file}
        fi
    done
    [ -z "$rows_failed" ]
}

# mend_after_boot DIRECTORY: cuts back the files of a session's folder, in the first sample after a
# boot alone.
mend_after_boot() {
    mended=/run/Vandrel_${0##*/}
    if ! [ -e "$mended" ]; then
        for csv in "$1"/*.csv "$1"/*/*.csv "$1"/*/*/*.csv; do
            cut_back "$csv"
        done
        : >"$mended"
    fi
}

# Sets $stamp to the columns DATE and TIME.
take_time_stamp() {
    stamp=$(date '+%Y-%m-%d,%H:%M:%S')
}

# An awk function that gives a process's folder NAME/PID, or "" for a process that there is nothing
# to record of: one that is gone, that belongs to the kernel, or that is younger than a few seconds.
# The short-lived helpers of each sample would leave a folder each, thousands in a week.
# /proc/PID/stat: 29 (Vandrel) S 2 29 ... ; 20 fields behind the name stands the start, in 1/100 s
# since boot, where /proc/uptime has seconds.
# shellcheck disable=SC2016 # awk's own variables
process_folder='
function process_folder(pid, path, line, name, rest, field) {
    path = "/proc/" pid "/stat"
    if ((getline line < path) <= 0) return ""
    close(path)
    rest = line
    sub(/^.*\) /, "", rest)
    name = substr(line, index(line, "(") + 1)
    name = substr(name, 1, length(name) - length(rest) - 2)
    split(rest, field, " ")
    if (field[21] == 0 || uptime - field[20] / 100 < 5) return "" # 21: virtual memory
    gsub(/[^A-Za-z0-9._+-]/, "_", name)
    sub(/^[.-]/, "_", name)
    return name == "" ? "" : name "/" pid
}
BEGIN {
    getline uptime < "/proc/uptime"
    uptime += 0
}
'

# pack_trace FOLDER: a trace's files into its wireshark_archive.zip, whole or the old one stays.
# zip_info.txt says meanwhile that it is being made.
pack_trace() {
    (
        leads_there "$1/." && cd "$1" || exit 1
        rm -f zip_info.txt wireshark_archive.new.zip
        date >zip_info.txt
        # A link is packed as one (-y): on a share it could lead to files of the camera.
        if zip -q -r -y wireshark_archive.new.zip . -x wireshark_archive.zip zip_info.txt &&
            flush wireshark_archive.new.zip; then
            mv -f wireshark_archive.new.zip wireshark_archive.zip
        else
            rm -f wireshark_archive.new.zip
            warn "The trace in ${PWD##*/} can not be packed"
        fi
        rm -f zip_info.txt
    )
}

# keep_nc_rules ADDRESS PORT RECORD: puts the record in the place of that host's one in nc_rules.txt,
# or at the end; without a record the host's is taken out. Whole or not at all. The texts reach awk
# by its environment, where they mean nothing else, and are compared as texts.
keep_nc_rules() {
    sweep_beside "$LOCALDATA/nc_rules.txt"
    if ! [ -e "$LOCALDATA/nc_rules.txt" ]; then
        : >"$LOCALDATA/nc_rules.txt" || return 1
    fi
    [ -f "$LOCALDATA/nc_rules.txt" ] || return 1
    # shellcheck disable=SC2016 # awk's own variables
    kept=$(nc_address=$1 nc_port=$2 nc_record=$3 awk '
        function put_record() {
            if (!put && ENVIRON["nc_record"] != "") print ENVIRON["nc_record"]
            put = 1
        }
        /^N/ {
            address = substr($0, 3); record = $0
            for (line = 2; line <= 5; line++) {
                getline # at the end of the file the last line stays, as it does for the daemon
                if (line == 2) port = substr($0, 3)
                record = record "\n" $0
            }
            if (address "" == ENVIRON["nc_address"] "" && port "" == ENVIRON["nc_port"] "") put_record()
            else print record
        }
        END { put_record() }' "$LOCALDATA/nc_rules.txt") || return 1
    { [ -z "$kept" ] || printf '%s\n' "$kept"; } | replace_file "$LOCALDATA/nc_rules.txt"
}
