// The web server's extended log of its requests. Main loop only.
#pragma once

#include <string>

// Writes the web server's configuration of the log, which counts once the caller has the server
// reloaded. False, and logged, without such a web server or when it can't be written.
bool vdrl_http_log_setup();

// Whether the configuration is there.
bool vdrl_http_log_is_enabled();

// Removes it.
void vdrl_http_log_disable();

// Begins a new log once it holds more than 100,000 bytes. The web server is restarted for it.
void vdrl_http_log_rotate();

// What the web server has written to the old log after the latest rotation deleted it, given once:
// who follows the log by its name has not seen it. To be asked for when the server writes the new
// one, at the latest before the next rotation.
std::string vdrl_http_log_late_lines();

inline constexpr const char *http_log_path = "/var/log/HTTP_log.txt";
