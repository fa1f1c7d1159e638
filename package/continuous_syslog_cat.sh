#!/bin/sh
# Moves what the log copy holds into the running session's Continuous_Syslog.txt. Called by the
# daemon, which waits for it, when a session or the daemon itself ends, and when the copy is rotated:
#
#   continuous_syslog_cat.sh LOG
#
# The session's file is where localdata/current_continuous_syslog.txt points to. LOG is emptied, so
# that no line is taken twice, but stays the same file, which the log service has open; if the lines
# can't be written, it stays as it is. Without the log, the link or the session's folder nothing
# happens.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

log=$1
target=$(readlink "$LOCALDATA/current_continuous_syslog.txt") || exit 0
if ! [ -s "$log" ] || ! [ -d "${target%/*}" ]; then
    exit 0
fi

size_of() {
    if [ -f "$1" ]; then
        wc -c <"$1"
    else
        echo 0
    fi
}

before=$(($(size_of "$target")))
taken=0
# The log goes on meanwhile: what came while the rest was written is taken before it is emptied.
while size=$(($(size_of "$log"))) && [ "$size" -gt "$taken" ]; do
    if ! { tail -c +$((taken + 1)) "$log" | head -c $((size - taken)) >>"$target"; } 2>/dev/null; then
        dd if=/dev/null of="$target" bs=1 seek=$before 2>/dev/null
        warn "The log can not be brought into the session"
        exit 1
    fi
    flush "$target"
    taken=$size
done
true >"$log"
