#!/bin/sh
# Lists the monitoring sessions of the storages. Called by the daemon, in the background every second
# minute and when a session ends, and waited for when the page asks for a fresh list:
#
#   collect_monitoring_sessions.sh [SERIAL]
#
# With a serial number it lists that device's sessions, else those of all devices on the storages.
# It replaces, in localdata,
#
#   found_monitoring_sessions.txt   the sessions that are there
#   lost_monitoring_sessions.txt    sessions known from an earlier run whose storage is gone
#
# each a sequence of blocks such as
#
#   Path:/var/spool/storage/SD_DISK/Vandrel_02A5C41E90B7/20230531_08_27_40
#   Monitoring:
#   monitoring_basic
#   monitoring_load
#   StartTime:
#   Wed May 31 08:27:40 CEST 2023
#   EndTime:
#   Still active
#
# without the last two lines in the lost list. The line behind StartTime: and EndTime: is the text,
# whatever it begins with. Names and texts on a storage may be anybody's: of names only those of the
# expected form are taken, of texts only printable characters but quotes and backslashes.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

serial=${1:-}
found=$LOCALDATA/found_monitoring_sessions.txt
lost=$LOCALDATA/lost_monitoring_sessions.txt
info_size_max=65536

[ -z "$serial" ] || is_serial "$serial" || exit 1

# One run at a time, or one that saw a storage go would forget what the other saw.
exec 9<>"$LOCALDATA/.collecting"
if command -v flock >/dev/null; then
    tries=0
    until flock -n 9 || [ "$tries" -eq 30 ]; do
        tries=$((tries + 1))
        sleep 1
    done
fi
sweep_beside "$found"
sweep_beside "$lost"

# sweep_archives ROOT: of a session that another camera deleted while this one packed it, the archive
# alone is left, which no list names.
sweep_archives() {
    for archive in "$1"/[0-9]*.zip; do
        session=${archive%.zip}
        if is_stamp "${session##*/}" && ! [ -e "$session" ] && [ -f "$archive" ] &&
            ! [ -h "$archive" ] && [ -n "$(find "$archive" -mmin +1440)" ]; then
            rm -f "$archive"
            warn "$archive is removed: its session was deleted long ago"
        fi
    done
}

# put_sessions ROOT: for each session "session PATH", "folder NAME"..., and "file PATH" for what
# tells of its time. Links are not followed: they may lead anywhere.
put_sessions() {
    for session in "$1"/[0-9]*; do
        if ! is_stamp "${session##*/}" || [ -h "$session" ] || ! [ -d "$session" ]; then
            continue
        fi
        printf 'session %s\n' "$session"
        for folder in "$session"/system_monitoring/monitoring_*; do
            case ${folder##*/} in
            *[!A-Za-z0-9_]*) ;;
            *) [ -d "$folder" ] && printf 'folder %s\n' "${folder##*/}" ;;
            esac
        done
        for file in "$session/Session_Information.txt" "$session/.signature"; do
            [ -f "$file" ] && ! [ -h "$file" ] && printf 'file %s\n' "$file"
        done
    done
}

put_all() {
    put_sessions "$LOCALDATA"
    for storage in "$STORAGES"/*; do
        if ! is_plain "${storage##*/}" || ! is_mounted "$storage"; then
            continue
        fi
        for root in "$storage/Vandrel_"*; do
            is_serial "${root##*/Vandrel_}" || continue
            if [ -z "$serial" ] || [ "${root##*/Vandrel_}" = "$serial" ]; then
                if [ -h "$root" ] || ! [ -d "$root" ]; then
                    continue
                fi
                put_sessions "$root"
                [ -z "$serial" ] || sweep_archives "$root" # each camera does it for its own
            fi
        done
        # Of a storage that went meanwhile nobody knows whether what was not seen is gone.
        is_mounted "$storage" && printf 'storage %s\n' "${storage##*/}"
    done
}

all=$(put_all)
sizes=$(printf '%s\n' "$all" | sed -n 's/^file //p' | xargs stat -c '%s %n' 2>/dev/null)

# What there is, what a run before this one found, and what it took for lost.
put_input() {
    printf '%s\n' "$sizes" | sed 's/^/size /'
    printf '%s\n' "$all" end
    if [ -f "$found" ]; then cat "$found"; fi
    echo end
    if [ -f "$lost" ]; then cat "$lost"; fi
}

# shellcheck disable=SC2016 # awk's own variables
program='
# What the page and its JSON can show, and short enough for their line buffers.
function plain(text) {
    gsub(/[^ -~]|["\\]/, "?", text)
    return substr(text, 1, 100)
}

function value_of(line) {
    sub(/\r$/, "", line)
    sub(/^[^:]*: */, "", line)
    return plain(line)
}

# The times of a session from its information file; from its .signature what that does not tell.
function read_times(path, line, of_info, of_end) {
    start = end = ""
    of_info = path "/Session_Information.txt"
    if (of_info in size && size[of_info] <= size_max) {
        while ((getline line < of_info) > 0) {
            if (line ~ /^Start Time of the session: /) start = value_of(line)
            if (line ~ /^Stop Time of the session: /) end = value_of(line)
        }
        close(of_info)
    }
    of_info = path "/.signature"
    if ((start == "" || end == "") && of_info in size && size[of_info] <= size_max) {
        while ((getline line < of_info) > 0) {
            if (start == "" && line ~ /^Start: /) start = value_of(line)
            if (end == "" && of_end) end = plain(line)
            of_end = line ~ /^End/
        }
        close(of_info)
    }
    if (start == "") start = path_time(path)
    if (end == "") end = "Unknown"
}

# 20230531_08_27_40 as 2023-05-31 08:27:40
function path_time(path, stamp) {
    stamp = substr(path, length(path) - 16)
    gsub(/_/, ":", stamp)
    return substr(stamp, 1, 4) "-" substr(stamp, 5, 2) "-" substr(stamp, 7, 2) " " substr(stamp, 10)
}

function put(list, path, folders, start_text) {
    gsub(/\n/, "\n" list " ", folders)
    printf "%s Path:%s\n%s Monitoring:%s\n%s StartTime:\n%s %s\n", \
        list, path, list, folders, list, list, start_text
}

function put_found() {
    if (path == "") return
    here[path] = 1
    read_times(path)
    put("f", path, folders, start)
    printf "f EndTime:\nf %s\n", end
    path = folders = ""
}

# A session of an old list: lost if its storage is gone, returned if it was and is found again. The
# lists may be damaged.
function take_old(path, folders, start_text, part) {
    if (path in here) {
        if (of_lost && here[path]++ == 1) put("r", path, folders, plain(start_text))
        return
    }
    if (path !~ ("^/var/spool/storage/[A-Za-z0-9_][A-Za-z0-9._-]*/Vandrel_" serial "/" stamp "$"))
        return
    split(path, part, "/")
    if (part[5] in mounted) return
    here[path] = 2
    put("l", path, folders, plain(start_text))
}

BEGIN {
    if (serial == "") serial = "[A-Za-z0-9]+"
    stamp = "[0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9]_[0-9][0-9]_[0-9][0-9]_[0-9][0-9]"
}

!old && $1 == "size" { size[$3] = $2; next }
!old && $1 == "storage" { put_found(); mounted[$2] = 1; next }
!old && $1 == "session" { put_found(); path = $2; next }
!old && $1 == "folder" { folders = folders "\n" $2; next }
!old && $1 == "end" { put_found(); old = 1; next }
!old { next }

$0 == "end" { of_lost = 1; state = 0; next }
# The lists as they were: state 1 in the names of folders, 2 at the start time.
state == 2 { state = 0; take_old(path, folders, $0); next }
/^Path:/ { path = substr($0, 6); folders = ""; state = 0; next }
/^M..i/ { state = 1; next }
/^St/ { if (state == 1) state = 2; next }
state == 1 && /^monitoring_[A-Za-z0-9_]+$/ && length($0) < 100 { folders = folders "\n" $0 }
'
# Each line with its list's letter in front: found, lost, returned.
lists=$(put_input | awk -v serial="$serial" -v size_max=$info_size_max "$program") || {
    warn "The sessions can not be listed"
    exit 1
}

put_list() { # LETTERS
    printf '%s\n' "$lists" | sed -n "s/^[$1] //p"
}

# A session that changes lists is on both for a moment, lest a reader, or the next run after a power
# cut, finds it on none.
if ! put_list lr | replace_file "$lost" || ! put_list f | replace_file "$found" ||
    ! put_list l | replace_file "$lost"; then
    warn "The lists of sessions can not be written"
    exit 1
fi
