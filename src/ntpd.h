// The device's NTP service, made to log what it does as long as the daemon runs. Main loop only.
#pragma once

// Whether the device has the service. Set at start.
extern bool has_ntpd_service;

// Whether there is a unit of the service that takes its arguments from $NTPD_ARGS, as the override
// does.
bool ntpd_service_exists();

// Installs the override and restarts the service; an installed one is left alone. Failures are
// logged.
void ntpd_service_conf_add();

// Takes the override back and restarts the service. Failures are logged.
void ntpd_service_conf_remove();

// Has the service run with its configuration as it is now, if it runs at all. Failures are logged,
// unless the whole device is going down.
void ntpd_restart_service();

// Logs the drift that the service has noted, if any.
void ntpd_log_drift();
