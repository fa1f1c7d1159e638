#!/bin/sh
# The server report: the state of the device as text, for the browser and for packages.
echo "Content-Type: text/plain"
echo
section() {
    printf '\n----- %s -----\n' "$1"
    shift
    "$@" 2>&1
}
echo "Server Report Start Time: $(date)"
section Parameters cat /etc/tvparameter/parameters.conf
section "Memory" cat /proc/meminfo
section "Load" cat /proc/loadavg
section "Uptime" cat /proc/uptime
section "Processes" ps
section "Storage" df -k
section "Network" cat /proc/net/dev
section "Core pattern" cat /proc/sys/kernel/core_pattern
for file in /var/log/info.log /var/log/error.log; do
    [ -f "$file" ] && section "$file" tail -n 200 "$file"
done
exit 0
