#!/bin/sh
# Called by logrotate before it copies the log copy and empties it:
#
#   continuous_syslog_hold.sh LOG
#
# Stops what writes LOG, waits until those who follow it have read all of it, and returns. In the
# background it lets the writers go on as soon as LOG is empty and the followers have noticed. So no
# line comes between copy and emptying, and none is there that a follower has not seen. The writers
# go on after some seconds at the latest, whatever has happened: the whole device's log waits.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

log=$1

# Sets writers (process numbers) and followers (files of /proc that tell how far they have read).
find_users() {
    writers=
    followers=
    for fd in /proc/[0-9]*/fd/*; do
        # shellcheck disable=SC3013 # the same file; the shells of Debian and busybox know it
        [ "$fd" -ef "$log" ] || continue
        process=${fd#/proc/}
        process=${process%%/*}
        info=/proc/$process/fdinfo/${fd##*/}
        # "flags: 0102001", octal: the last two bits say what it was opened for
        case $(sed -n 's/^flags:.*\(.\)$/\1/p' "$info" 2>/dev/null) in
        [04]) followers="$followers $info" ;;
        ?) writers="$writers $process" ;;
        esac
    done
}

have_stopped() {
    for process in $writers; do
        cat "/proc/$process/task"/*/status 2>/dev/null
    done | awk '/^State:/ && $2 !~ /[TtZX]/ { exit 1 }'
}

# have_read BYTES: also true of a follower that has gone.
have_read() {
    for info in $followers; do
        at=$(sed -n 's/^pos:[^0-9]*//p' "$info" 2>/dev/null)
        [ "${at:-$1}" = "$1" ] || return 1
    done
}

is_empty() { ! [ -s "$log" ]; }

go_on() {
    # shellcheck disable=SC2086 # a list
    kill -CONT $writers 2>/dev/null
}

# In a session of its own, as whoever kills logrotate may kill all of its process group.
if [ "${2:-}" = release ]; then
    trap '' TERM INT HUP
    tries 50 is_empty && tries 15 have_read 0
    go_on
    exit
fi
is_empty && exit 0

# Those who bring the lines into a session see no file that is just being emptied.
exec 9<>"$LOCALDATA/.continuous_syslog"
if command -v flock >/dev/null && ! tries 50 flock -n 9; then
    exit 1 # logrotate comes again
fi
find_users
[ -n "$writers" ] || exit 1 # one that is just being restarted would write between copy and emptying
export writers followers
# shellcheck disable=SC2091 # nothing where there is none
$(command -v setsid) "$0" "$log" release </dev/null >/dev/null 2>&1 &
# shellcheck disable=SC2086 # a list
kill -STOP $writers
stopped=$writers
if ! tries 20 have_stopped || ! { find_users && [ "$writers" = "$stopped" ]; }; then
    writers=$stopped # and not those who have come in their place meanwhile
    kill -KILL $! # it would hold the lock
    go_on
    exit 1
fi
# A follower may look once a second. One that only shows the file may stand anywhere in it.
tries 15 have_read $(($(wc -c <"$log"))) || :
