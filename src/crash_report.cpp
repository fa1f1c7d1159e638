#include "crash_report.h"

#include "command_limits.h"
#include "dateutil.h"
#include "debug_mode.h"
#include "fileutil.h"
#include "log.h"
#include "process_list.h"
#include "session_globals.h"
#include "strutil.h"
#include "sysutil.h"

#include <cerrno>
#include <chrono>
#include <sys/wait.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t folder_size = 256;
constexpr unsigned report_folder_permissions = 0666;
constexpr const char *script = "/usr/local/packages/Vandrel/debug_script.sh";
constexpr std::chrono::milliseconds packing_limit = 30s; // the session's stop waits for it

} // namespace

bool create_crash_report_snapshot() {
    if (!secondary_storage_path || !current_activity_folder) {
        return false;
    }
    return crash_report_snapshot(
        format_bounded(folder_size, "%s%s/%s/%s", secondary_storage_path->c_str(),
                       current_activity_folder->c_str(), "system_monitoring", "monitoring_basic"));
}

bool crash_report_snapshot(const std::string &folder) {
    const std::string reports = folder + "/Crash_Reports";
    if (!make_folder(reports.c_str(), report_folder_permissions)) {
        log_error("Could not create '%s'", reports.c_str());
        return false;
    }
    const std::string archive = reports + "/" + date_format_now("Debug_%Y-%m-%dT%H%M%S%Z.tgz");
    const char *const argv[] = {script, archive.c_str(), nullptr};
    errno = 0;
    const int status = run_program(argv, limit_of(script).limit);
    if (status == -1) {
        log_error("%s Execve failed.", __func__);
    } else if (WIFSIGNALED(status)) {
        log_error("The script of crash report '%s' was killed.", archive.c_str());
    } else if (WEXITSTATUS(status) != 0) {
        log_error("The script of crash report '%s' ended with status %d.", archive.c_str(),
                  WEXITSTATUS(status));
    }
    if (status != 0) {
        return false;
    }
    crash_report_being_created = 1;
    ++occurrences.crash_reports;
    return true;
}

void finish_crash_report(const std::string &session_directory) {
    const std::string reports =
        session_directory + "/system_monitoring/monitoring_basic/Crash_Reports";
    const auto is_being_made = [] { return ps_grep_and_check_if_included("debug_script", ".tgz"); };
    if (!is_directory(reports.c_str()) || !is_being_made()) {
        return;
    }
    // The script dumps no further process once this is there, and packs what it has.
    const std::string end = reports + "/.tmp_end";
    (void)file_open_or_warn(end.c_str(), "w");
    const auto end_time = std::chrono::steady_clock::now() + packing_limit;
    while (std::chrono::steady_clock::now() < end_time && is_being_made()) {
        command_read_lines("killall dcore 2>&1", 200, [](const std::string &) {});
        std::this_thread::sleep_for(200ms);
    }
    file_remove(end.c_str());
    if (is_being_made()) {
        log_warning("The crash report that is being made is left out of the session's archive.");
    }
}
