// The package's own copy of the system log, /usr/local/vandrel.log, which the device's log program
// writes and rotates to vandrel.log.1. Main loop only.
#pragma once

// Has the log program write the copy. What is installed already is left alone, so that a restart of
// the daemon does not restart the log program. Failures are logged.
void vdrl_syslog_subscribe();

// Ends that, brings what is left into a running session and removes the copy. Failures are logged.
void vdrl_syslog_unsubscribe();

// While a session runs, the link to its file of the log.
inline constexpr const char *continuous_syslog_link =
    "/usr/local/packages/Vandrel/localdata/current_continuous_syslog.txt";

// Has all lines logged until now brought into the session that the link leads into; without it they
// are passed over, and the next session begins behind them. Waits.
void vdrl_syslog_take_lines();
