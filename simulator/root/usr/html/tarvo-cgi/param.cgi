#!/bin/sh
# The device's parameters: param.cgi?action=list[&group=root.Brand]
echo "Content-Type: text/plain"
echo "Cache-Control: no-cache"
echo
group=root
action=
IFS='&'
set -f
for argument in $QUERY_STRING; do
    case $argument in
    action=*) action=${argument#action=} ;;
    group=*) group=${argument#group=} ;;
    esac
done
if [ "$action" != list ]; then
    echo "# Error: Only action=list is served here."
    exit 0
fi
awk -v group="$group" '
    $0 == "" || substr($0, 1, length(group)) != group { next }
    substr($0, length(group) + 1, 1) ~ /[.=]/ { print; found = 1 }
    END { if (!found) print "# Error: Error -1 getting param in group \x27" group "\x27" }
' /etc/tvparameter/parameters.conf
