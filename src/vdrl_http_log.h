// The web server's extended log of its requests. Main loop only.
#pragma once

#include <string>

// Writes the web server's configuration of the log; takes effect when the caller reloads the
// server. False, logged, without such a web server or when the file can't be written.
bool vdrl_http_log_setup();

// Whether the configuration is there.
bool vdrl_http_log_is_enabled();

// Removes it.
void vdrl_http_log_disable();

// Begins a new log once it holds more than 100,000 bytes. The web server is restarted for it. With
// somebody following the log by its name it may wait for a fifth of a second.
void vdrl_http_log_rotate(bool followed);

// What the web server wrote to the old log after the follower closed it at the last rotation.
// Returned once; call it when the server writes the new log, before the next rotation.
std::string vdrl_http_log_late_lines();

inline constexpr const char *http_log_path = "/var/log/HTTP_log.txt";
