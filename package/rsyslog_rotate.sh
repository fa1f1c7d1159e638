#!/bin/sh
# Rotates the log copy. Installed as /usr/local/vandrel_log_rotate.sh and called by rsyslog when the
# copy is as long as it may become. rsyslog has closed the file and waits, and with it the whole
# device's log: so the lines are brought into a running session in the background, and only those of
# the rotation before are waited for, but not for a storage that hangs. rsyslog also loses lines when
# it is stopped while it waits.

PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export PATH
log=/usr/local/vandrel.log
taking=/run/vandrel_log_taking
tries=200 # fortieths of a second

# What ends rsyslog must not end this half-way.
trap '' TERM INT HUP

while [ -e "$taking" ] && [ $tries -gt 0 ]; do
    tries=$((tries - 1))
    sleep 0.025
done
mv -f "$log" "$log.1"
: >"$taking"
# shellcheck disable=SC2016 # the inner shell's own
setsid sh -c '/usr/local/packages/Vandrel/continuous_syslog_cat.sh "$1" written; rm -f "$2"' \
    - "$log" "$taking" &
