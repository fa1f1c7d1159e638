// The remote server that the device's whole system log is forwarded to. The setting is the log
// program's own configuration and survives restarts. Main loop only.
#pragma once

#include <optional>
#include <string>

// The server set since the start of the daemon, or none. Written by the functions below.
extern std::optional<std::string> current_syslog_server;

// Whether the text can be a server's address in the log program's configuration: a host name, an
// IPv4 or IPv6 address; with rsyslog also with ":PORT" behind, an IPv6 address in brackets then.
// Nothing else must reach vdrl_syslog_remote_setup.
bool vdrl_syslog_remote_is_address(const char *address);

// What vdrl_syslog_remote_setup returns. Failures are logged.
inline constexpr int syslog_remote_failed = 0;
inline constexpr int syslog_remote_rsyslog = 1;
inline constexpr int syslog_remote_syslog_ng = 2;

// Has the log forwarded to that server instead of any before. The log program is restarted, rsyslog
// two seconds later; a test message follows, except after the first set-up with rsyslog.
int vdrl_syslog_remote_setup(const char *address);

// Ends the forwarding, once the caller restarts the log program. 0, or -1 when rsyslog's
// configuration could not be read or rewritten (logged).
int vdrl_syslog_remote_remove();

// Restarts the log program: syslog-ng at once, rsyslog after two seconds, so that a request's reply
// leaves first.
void vdrl_syslog_remote_restart_syslog();
