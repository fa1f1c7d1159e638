#!/bin/sh
# Rotates the log copy. Installed as /usr/local/vandrel_log_rotate.sh and called by rsyslog when the
# copy is as long as it may become. rsyslog has closed the file and waits: nothing is written
# meanwhile, but the whole device's log stands still, so that a storage that hangs is not waited for.
# All signals are blocked here, which makes a shell's `wait` hang.

PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export PATH
log=/usr/local/vandrel.log
taking=/run/vandrel_log_taking.$$
tries=100 # twentieths of a second

: >"$taking"
{
    /usr/local/packages/Vandrel/continuous_syslog_cat.sh "$log" written
    rm -f "$taking"
} &
while [ -e "$taking" ] && [ $tries -gt 0 ]; do
    tries=$((tries - 1))
    sleep 0.05
done
rm -f "$taking"
mv -f "$log" "$log.1"
