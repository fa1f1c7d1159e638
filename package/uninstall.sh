#!/bin/sh
# Takes Vandrel off a camera, as root:
#
#   /usr/local/packages/Vandrel/uninstall.sh [--sessions]
#
# The device is given back what the daemon has changed on it: log set-up, web server, time service,
# core pattern, kernel dumps, SSH and FTP. Settings of the package go with it. Sessions stay, on the
# storages and below localdata; with --sessions those below localdata are removed.
set -u
installed=/usr/local/packages/Vandrel

fail() {
    echo "uninstall.sh: $1" >&2
    exit 1
}

sessions=keep
if [ "${1:-}" = --sessions ]; then
    sessions=remove
    shift
fi
[ $# -eq 0 ] || fail "unknown arguments: $*"
[ "$(id -u)" -eq 0 ] || fail "only root can uninstall"
if [ -s "$installed/localdata/current_monitoring_session.txt" ]; then
    fail "a monitoring session is running; stop it first, else it has no end and no archive"
fi

# It gives back most of it when it is told to end; one that was killed needs a start for that. What
# follows is for one that does not start.
if ! systemctl is-active --quiet Vandrel; then
    systemctl start Vandrel && sleep 5
fi
systemctl stop Vandrel 2>/dev/null
if grep -q Vandrel /proc/sys/kernel/core_pattern; then
    echo '|/usr/sbin/coredump-handler %h_%t_%p.core' >/proc/sys/kernel/core_pattern
fi
if [ -e /lib/persistent/.ENABLE_KERNEL_CRASHDUMPS ]; then
    sysctl -q -w debug.crashdump=none 2>/dev/null
    rm -f /lib/persistent/.ENABLE_KERNEL_CRASHDUMPS /etc/sysconfig/crashdump.conf
fi
web=
if [ -e /etc/apache2/conf.d/log.conf ]; then
    rm -f /etc/apache2/conf.d/log.conf
    web=changed
fi
# The remote server's line stands among lines of others.
log=
remote=/etc/rsyslog.d/40-remote_log.conf
if [ -e "$remote" ]; then
    sed -i '/^\*\.\* @/d' "$remote"
    [ -s "$remote" ] || rm -f "$remote"
    log=changed
fi
for file in /etc/syslog-ng.d/remote.conf /etc/syslog-ng.d/vandrel.conf /etc/logrotate.d/vandrel.conf \
    /etc/rsyslog.d/66-vandrel.conf; do
    [ ! -e "$file" ] || log=changed
    rm -f "$file"
done
if [ -n "$log" ]; then
    systemctl restart rsyslog 2>/dev/null || systemctl restart syslog-ng 2>/dev/null
fi
override=/etc/systemd/system/ntp.service.d/override.conf
if grep -qs 'ntpd -d -s -v -f /run/ntp/ntpd.conf' "$override"; then
    rm -f "$override"
    rmdir "${override%/*}" 2>/dev/null
    systemctl daemon-reload
    systemctl restart ntp 2>/dev/null
fi
rm -f /var/log/HTTP_log.txt* /usr/local/vandrel_log_rotate.sh /usr/local/vandrel.log /usr/local/vandrel.log.1

if [ -f "$installed/.installed" ]; then
    while read -r path; do
        case $path in
        "$installed"/*) ;;
        /etc/apache2/*) rm -f "$path" && web=changed ;;
        *) rm -f "$path" && rmdir "${path%/*}" 2>/dev/null ;;
        esac
    done <"$installed/.installed"
fi
[ -z "$web" ] || systemctl reload httpd 2>/dev/null
systemctl daemon-reload

# Sessions are the folders named after their start, and their archives.
if [ "$sessions" = keep ]; then
    for entry in "$installed"/localdata/* "$installed"/localdata/.[!.]*; do
        case ${entry##*/} in
        [0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9]_[0-9][0-9]_[0-9][0-9]_[0-9][0-9]*) ;;
        *) rm -rf "$entry" ;;
        esac
    done
else
    rm -rf "$installed/localdata"
fi
for entry in "$installed"/* "$installed"/.[!.]*; do
    [ "$entry" = "$installed/localdata" ] || rm -rf "$entry"
done
if rmdir "$installed/localdata" "$installed" 2>/dev/null || [ ! -d "$installed" ]; then
    echo "Vandrel is uninstalled."
else
    echo "Vandrel is uninstalled; its sessions on the internal storage are in $installed/localdata."
fi
