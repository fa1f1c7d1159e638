// The package's own copy of the system log, /usr/local/vandrel.log, which the device's log program
// writes and rotates to vandrel.log.1. Main loop only.
#pragma once

// Configures the log program to write the copy. An installed configuration is kept, so that a
// restart of the daemon does not restart the log program. Failures are logged.
void vdrl_syslog_subscribe();

// Ends that, brings what is left into a running session and removes the copy. Failures are logged.
void vdrl_syslog_unsubscribe();

// While a session runs, the link to its file of the log.
inline constexpr const char *continuous_syslog_link =
    "/usr/local/packages/Vandrel/localdata/current_continuous_syslog.txt";

// Appends all lines logged until now to the session that the link points to; without a link they
// are skipped, and the next session begins after them. Waits for the script.
void vdrl_syslog_take_lines();
