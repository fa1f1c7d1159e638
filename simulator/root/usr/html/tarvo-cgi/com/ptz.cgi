#!/bin/sh
# The PTZ head by HTTP: ptz.cgi?query=position, or pan=DEGREES, tilt=DEGREES, zoom=STEPS.
# The head is back at its home position after a restart.
position=/run/ptz/position
echo "Content-Type: text/plain"
echo "Cache-Control: no-cache"
echo
pan=0 tilt=0 zoom=1
[ -r $position ] && read -r pan tilt zoom <$position
query=
moved=
IFS='&'
set -f
for argument in $QUERY_STRING; do
    value=${argument#*=}
    case $argument in
    query=*) query=$value ;;
    pan=* | tilt=* | zoom=*)
        case ${value#-} in
        '' | *[!0-9]*)
            echo "Error: a number is expected"
            exit 0
            ;;
        esac
        case $argument in
        pan=*) pan=$value ;;
        tilt=*) tilt=$value ;;
        zoom=*) zoom=$value ;;
        esac
        moved=1
        ;;
    esac
done
if [ -n "$moved" ]; then
    echo "$pan $tilt $zoom" >$position.$$ && mv $position.$$ $position
fi
case $query in
position) printf 'pan=%s\ntilt=%s\nzoom=%s\n' "$pan" "$tilt" "$zoom" ;;
'') [ -n "$moved" ] || echo "Error: nothing asked" ;;
*) echo "Error: unknown query" ;;
esac
