#include "vdrl_syslog_continuous.h"

#include "app_state.h"
#include "fileutil.h"
#include "log.h"
#include "sysutil.h"
#include "vdrl_syslog.h"

#include <cerrno>
#include <glib.h>
#include <string>
#include <sys/stat.h>

namespace {

constexpr const char *copy_path = "/usr/local/vandrel.log";
constexpr const char *rotated_copy_path = "/usr/local/vandrel.log.1";
constexpr const char *take_command =
    "/usr/local/packages/Vandrel/continuous_syslog_cat.sh /usr/local/vandrel.log";

struct installed_file {
    const char *source;
    const char *staged; // on the target's file system, in no folder that a service reads
    const char *target;
    mode_t mode;
    const char *not_installed; // what is logged
    const char *not_removed;
};

// The files that a log program needs; rotation first, or the copy would fill the flash.
struct set_up {
    installed_file rotation;
    installed_file configuration;
    const char *apply;
};

constexpr set_up syslog_ng = {
    {"/usr/local/packages/Vandrel/conf/logrotate.conf", "/etc/.vandrel.new",
     "/etc/logrotate.d/vandrel.conf", 0644,
     "Could not install logrotate script for vandrel.log. Will not enable vandrel.log.",
     "Could not remove logrotate script for vandrel.log."},
    {"/usr/local/packages/Vandrel/conf/syslog-ng.conf", "/etc/.vandrel.new",
     "/etc/syslog-ng.d/vandrel.conf", 0644, "Could not install vandrel.log syslog configuration.",
     "Could not remove vandrel.log syslog configuration."},
    "systemctl reload syslog-ng"};

constexpr set_up rsyslog = {
    {"/usr/local/packages/Vandrel/rsyslog_rotate.sh", "/usr/local/.vandrel.new",
     "/usr/local/vandrel_log_rotate.sh", 0755,
     "Could not install rotate script for vandrel.log. Will not enable vandrel.log.",
     "Could not remove rotate script for vandrel.log."},
    {"/usr/local/packages/Vandrel/conf/rsyslog.conf", "/etc/.vandrel.new",
     "/etc/rsyslog.d/66-vandrel.conf", 0644, "Could not install rsyslog config for vandrel.log.",
     "Could not remove rsyslog config for vandrel.log."},
    "systemctl restart rsyslog"};

const set_up *of_this_device() {
    switch (syslog_program_installed) {
    case syslog_variant_rsyslog:
        return &rsyslog;
    case syslog_variant_syslog_ng:
        return &syslog_ng;
    default:
        return nullptr;
    }
}

// Staged and renamed: a partial or non-executable file would pass for the installed one after a
// power cut, and logrotate reads every file in its folder.
bool install(const installed_file &file) {
    const auto text = file_get_contents(file.source);
    const bool installed = text && file_put_string(file.staged, *text) &&
                           ::chmod(file.staged, file.mode) == 0 &&
                           ::rename(file.staged, file.target) == 0;
    if (!installed) {
        log_error("%s", file.not_installed);
    }
    return installed;
}

} // namespace

void vdrl_syslog_subscribe() {
    const set_up *wanted = of_this_device();
    if (wanted == nullptr || (!is_file(wanted->rotation.target) && !install(wanted->rotation))) {
        return;
    }
    if (!is_file(wanted->configuration.target) && install(wanted->configuration)) {
        (void)system_ret(wanted->apply);
    }
    errno = 0;
}

void vdrl_syslog_unsubscribe() {
    const bool session_runs = g_file_test(continuous_syslog_link, G_FILE_TEST_IS_SYMLINK) != FALSE;
    if (session_runs) {
        vdrl_syslog_take_lines();
    }
    if (const set_up *wanted = of_this_device()) {
        if (!file_remove(wanted->configuration.target)) {
            log_error("%s", wanted->configuration.not_removed);
        } else {
            (void)system_ret(wanted->apply);
            if (!file_remove(wanted->rotation.target)) {
                log_error("%s", wanted->rotation.not_removed);
            }
        }
    }
    if (session_runs) {
        // The log program has stopped writing: takes the last lines.
        (void)system_ret((std::string(take_command) + " written").c_str());
    }
    file_remove(copy_path);
    file_remove(rotated_copy_path);
}

void vdrl_syslog_take_lines() {
    (void)system_ret(take_command);
}
