#!/bin/sh
# Brings the lines of the log copy into the running session's Continuous_Syslog.txt, each once:
#
#   continuous_syslog_cat.sh LOG           called by the daemon, which waits, when a session starts,
#                                          when it stops and when the daemon itself ends
#   continuous_syslog_cat.sh LOG written   called when LOG is rotated: takes what is written, where
#                                          the first form waits for what the log service still holds
#
# The session's file is where localdata/current_continuous_syslog.txt points to. Without a session
# the lines are passed over: they belong to none. If they can't be written, they are taken later.
#
# LOG is never changed here, as that could lose a line that comes meanwhile. How far it was taken
# stands in localdata/continuous_syslog_position.txt: bytes, and the MD5 sum of the first line of the
# file that they were counted in, which is LOG or, once that was rotated, LOG.1.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

log=$1
position=$LOCALDATA/continuous_syslog_position.txt

# Every line that was logged before this one is written when this one is.
wait_until_written() {
    mark="($$.$(date +%s))"
    logger -t Vandrel-silent -p user.info -- "Continuous log taken up to here $mark." 2>/dev/null &&
        tries 50 grep -qsF "$mark" "$log" "$log.1"
}

# whole_size FILE: its bytes up to the last line's end.
whole_size() {
    size=$(($(wc -c <"$1")))
    rest=0
    if [ "$(head -c $size "$1" | tail -c 1 | wc -l)" -eq 0 ]; then
        rest=$(($(head -c $size "$1" | tail -n 1 | wc -c)))
    fi
    echo $((size - rest))
}

# identity FILE END: the sum of its first line, "-" without one.
identity() {
    if [ "$2" -gt 0 ]; then
        head -n 1 "$1" | md5sum | cut -c 1-32
    else
        echo -
    fi
}

# take FILE FROM END: appends those bytes to the session's file.
take() {
    if [ -z "$target" ] || [ "$3" -le "$2" ]; then
        return 0
    fi
    { tail -c +$(($2 + 1)) "$1" | head -c $(($3 - $2)) >>"$target"; } 2>/dev/null
}

if [ "${2:-}" != written ] && [ -f "$log" ]; then
    wait_until_written
fi

exec 9<>"$LOCALDATA/.continuous_syslog"
if command -v flock >/dev/null && ! tries 50 flock -n 9; then
    warn "The log can not be brought into the session: another run does not end"
    exit 1
fi
sweep_beside "$position"
target=$(readlink "$LOCALDATA/current_continuous_syslog.txt")
if [ -n "$target" ] && ! [ -d "${target%/*}" ]; then
    exit 0 # its storage is not there
fi
if ! can_append "$target"; then
    warn "The log can not be brought into the session: $target is no file"
    exit 1
fi

# Opened, in this order, they stay the files that they are should they be rotated now: at worst both
# are the same.
newer=/dev/null
older=/dev/null
{ [ -f "$log" ] && command exec 3<"$log"; } 2>/dev/null && newer=/proc/$$/fd/3
{ [ -f "$log.1" ] && command exec 4<"$log.1"; } 2>/dev/null && older=/proc/$$/fd/4
new_end=$(whole_size $newer)
old_end=$(whole_size $older)
new_id=$(identity $newer "$new_end")
old_id=$(identity $older "$old_end")

offset=0
id=
[ -f "$position" ] && read -r offset id <"$position"
case $offset in
'' | *[!0-9]*) offset=0 ;;
esac
before=0
[ -f "$target" ] && before=$(($(wc -c <"$target")))
if [ "$new_id" != - ] && [ "$id" = "$new_id" ]; then
    take $newer "$offset" "$new_end"
elif [ "$new_id" = "$old_id" ]; then
    take $newer 0 "$new_end"
else
    [ "$id" = "$old_id" ] || offset=0
    take $older "$offset" "$old_end" && take $newer 0 "$new_end"
fi || {
    dd if=/dev/null of="$target" bs=1 seek=$before 2>/dev/null
    warn "The log can not be brought into the session"
    exit 1
}
[ -f "$target" ] && flush "$target"
if [ "$new_id" = - ]; then
    new_end=$old_end
    new_id=$old_id
fi
echo "$new_end $new_id" | replace_file "$position"
