// What the whole application shares: the device's parameters and identity, and the main timer's
// count. Main loop only, unless said otherwise.
#pragma once

#include "handle.h"

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <tvparameter.h>

// Made at start, freed by the clean-up at SIGTERM; empty when the store could not be reached.
extern std::unique_ptr<TVParameter, deleter<tv_parameter_free>> parameters;

// Read at start, and again by the main timer while it is missing; freed by the clean-up.
extern std::optional<std::string> serial_number;

// Whether the device's web server is configured under /etc/apache2/conf.d. Set at start.
extern bool apache2_included;

// Whether the session lists are limited to this device's own. Set at start and by the actions that
// list, start or stop sessions.
extern bool collect_only_from_this_camera;

// The system-log daemon. Set at start.
enum syslog_variant {
    syslog_variant_unknown = 0, // before the first look
    syslog_variant_none = 1,
    syslog_variant_rsyslog = 2,
    syslog_variant_syslog_ng = 3
};
extern syslog_variant syslog_program_installed;

// Whether the platform has a capture library. Set at start.
extern bool has_libcapture;

// When the daemon was started, in seconds since 1970.
extern const std::time_t start_time;

// Main-timer ticks since the start, modulo 60,000,000; written by the main timer.
extern unsigned long timer_count;

// A device parameter's value, or nothing: without a parameter store too.
std::optional<std::string> parameter_get(const char *name);

// Reads the serial number, cut at its first newline, into serial_number. One that can't stand
// unquoted in a command line is logged and ignored.
void read_serial_number();
