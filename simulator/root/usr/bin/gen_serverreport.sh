#!/bin/sh
# The server report: the state of the device as text.
section() {
    printf '\n----- %s -----\n' "$1"
    shift
    "$@" 2>&1
}
parameter() {
    sed -n "s/^$1=//p" /etc/tvparameter/parameters.conf
}
echo "Server Report Start Time: $(date)"
echo "Product: $(parameter root.Brand.ProdFullName)"
echo "Version: $(parameter root.Properties.Firmware.Version)"
echo "Serial Number: $(parameter root.Properties.System.SerialNumber)"
section Kernel uname -a
section Parameters cat /etc/tvparameter/parameters.conf
section Packages ls -l /usr/local/packages
section Uptime uptime
section Load cat /proc/loadavg
section Memory cat /proc/meminfo
section Processes ps
section Mounts cat /proc/mounts
section Storage df -k
section Network cat /proc/net/dev
section Routes ip route
section "Core pattern" cat /proc/sys/kernel/core_pattern
for file in /var/log/info.log /var/log/error.log; do
    [ -f "$file" ] && section "$file" tail -n 200 "$file"
done
printf '\nServer Report End Time: %s\n' "$(date)"
