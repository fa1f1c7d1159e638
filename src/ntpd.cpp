#include "ntpd.h"

#include "fileutil.h"
#include "log.h"
#include "strutil.h"
#include "sysutil.h"

#include <cerrno>
#include <glib.h>
#include <string>
#include <unistd.h>

bool has_ntpd_service = false;

namespace {

constexpr const char *unit_path = "/usr/lib/systemd/system/ntp.service";
constexpr const char *override_folder = "/etc/systemd/system/ntp.service.d";
constexpr const char *override_path = "/etc/systemd/system/ntp.service.d/override.conf";
constexpr const char *drift_path = "/var/lib/openntpd/db/ntpd.drift";

constexpr const char *override_text =
    "[Service]\nExecStart=\nExecStart=/usr/sbin/ntpd -d -s -v -f /run/ntp/ntpd.conf $NTPD_ARGS\n";

// systemd starts no service then.
bool device_is_going_down() {
    return system_ret("[ \"$(systemctl is-system-running 2>/dev/null)\" = stopping ]") == 0;
}

} // namespace

bool ntpd_service_exists() {
    if (!is_file(unit_path)) {
        return false;
    }
    const auto unit = file_get_contents(unit_path);
    return !unit || unit->find("$NTPD_ARGS") != std::string::npos;
}

void ntpd_service_conf_add() {
    if (is_file(override_path)) {
        return;
    }
    errno = 0;
    if (g_mkdir_with_parents(override_folder, 0755) != 0) {
        log_error("Cannot create ntpd service config override directory.");
        return;
    }
    if (file_put_string(override_path, override_text)) {
        ntpd_restart_service();
    }
}

void ntpd_service_conf_remove() {
    if (!is_file(override_path)) {
        return;
    }
    if (!file_remove(override_path)) {
        log_error("Could not remove ntpd config override file.");
        return;
    }
    (void)::rmdir(override_folder); // stays if it holds somebody else's
    errno = 0;
    ntpd_restart_service();
}

void ntpd_restart_service() {
    errno = 0;
    if (const int status = system_ret("systemctl daemon-reload"); status != 0) {
        log_error("Could not reload systemd configuration (returned %d).", status);
    }
    if (system_ret("systemctl is-active --quiet ntp") != 0) {
        return;
    }
    if (const int status = system_ret("systemctl restart ntp");
        status != 0 && !device_is_going_down()) {
        log_error("Could not restart ntp service (returned %d).", status);
    }
}

void ntpd_log_drift() {
    if (!is_file(drift_path)) {
        return;
    }
    if (auto drift = file_get_contents(drift_path)) {
        while (drift->ends_with('\n')) {
            drift->pop_back();
        }
        str_replace_char(*drift, '\n', ' ');
        log_info("NTPd Drift is %s (%s)", drift->c_str(), drift_path);
    }
}
