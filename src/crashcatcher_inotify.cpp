#include "crashcatcher_inotify.h"

#include "crashcatcher_core.h"
#include "fileutil.h"
#include "log.h"
#include "report_queue.h"
#include "session_globals.h"
#include "strutil.h"

#include <cerrno>
#include <optional>
#include <string_view>
#include <sys/wait.h>

namespace {

constexpr std::size_t crash_path_size = 200;
constexpr const char *report_program = "/usr/html/tarvo-cgi/serverreport.cgi";
constexpr const char *report_ending = "_server-report.log";

std::optional<std::string> crash_path;
std::unique_ptr<vdrl_inotify_watcher> inotify_watcher;

void watch_crash_path() {
    inotify_watcher =
        vdrl_inotify_create(crash_path->c_str(), IN_CLOSE_WRITE, inotify_gio_process_event);
    if (!inotify_watcher) {
        log_error("Crash detection: Failed to initialize inotify.");
    }
}

// Reports come through the same folder.
bool is_report(std::string_view name) {
    const std::size_t at = name.rfind('_');
    return at != std::string_view::npos && name.substr(at) == report_ending;
}

// Kernel dumps do, too, under a name of their own while they are copied.
bool is_temporary(std::string_view name) {
    return name.starts_with(".tmp");
}

} // namespace

void create_dir_monitor(const std::string &session_directory) {
    if (get_core_pattern()) {
        if (crash_path && is_directory(crash_path->c_str())) {
            renew_core_pattern();
            if (!inotify_watcher) {
                watch_crash_path();
            } else {
                (void)vdrl_inotify_renew(*inotify_watcher);
            }
        }
        return;
    }
    crash_path = format_bounded(crash_path_size, "%s/%s/", session_directory.c_str(), "coredumps");
    if (!is_directory(crash_path->c_str())) {
        return;
    }
    set_core_pattern(*crash_path);
    if (get_core_pattern()) {
        watch_crash_path();
    }
}

void inotify_gio_release() {
    reset_core_pattern();
    vdrl_inotify_destroy(inotify_watcher);
    crash_path.reset();
    log_info("Crash detection: Inotify watch removed and closed");
}

void inotify_gio_process_event(const inotify_event &event, const char *name,
                               vdrl_inotify_watcher &watcher) {
    if (!monitory_active || name == nullptr || *name == '\0' ||
        (event.mask & IN_CLOSE_WRITE) == 0 || is_report(name) || is_temporary(name)) {
        return;
    }
    top_dir_callback(watcher.name.c_str(), name);
}

void top_dir_callback(const char *folder, const char *name) {
    if (folder == nullptr || name == nullptr) {
        log_error("Crash detected: Crash archive saved but could not create server report and "
                  "trigger events");
        return;
    }
    ++occurrences.cores;
    errno = 0;
    const std::string report = std::string(folder) + name + report_ending;
    // The name is the crashed program's: it is in no command.
    report_queue_add({report_program, report, [](int wait_status) {
                          if (WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == 0) {
                              log_info("Crash detected: Server report saved");
                          } else if (wait_status == -1 && (errno == EAGAIN || errno == ENOMEM)) {
                              log_error("Crash detected: Failed to save server report (fork fail)");
                          } else {
                              log_error("Crash detected: Failed to save server report");
                          }
                      }});
}
