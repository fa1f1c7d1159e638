#!/bin/sh
# Records which actions the device is set up to take on which events, so that a session's reader can
# tell what happened by itself. Called by the daemon, which waits for it, when it starts and when a
# session's storage is lost:
#
#   collect_action_rules.sh SERIAL
#
# The rules are the files /etc/actions/*.conf. They are put, each behind a line with its name, into
# localdata/action_rules.txt; without any rules there is no such file.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

rules=$LOCALDATA/action_rules.txt
file_size_max=262144

set -- "${1:-unknown}" /etc/actions/*.conf
serial=$1
shift
sweep_beside "$rules"
if ! [ -f "$1" ]; then
    rm -f "$rules"
    exit 0
fi
{
    echo "Action rules of $serial"
    for file; do
        [ -f "$file" ] || continue
        printf '\n%s:\n' "$file"
        head -c $file_size_max "$file"
    done
} | replace_file "$rules" || warn "The action rules can not be recorded"
