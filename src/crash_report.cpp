#include "crash_report.h"

#include "command_limits.h"
#include "dateutil.h"
#include "fileutil.h"
#include "log.h"
#include "session_globals.h"
#include "strutil.h"
#include "sysutil.h"

#include <cerrno>
#include <sys/wait.h>

namespace {

constexpr std::size_t folder_size = 256;
constexpr unsigned report_folder_permissions = 0666;
constexpr const char *script = "/usr/local/packages/Vandrel/debug_script.sh";

} // namespace

void create_crash_report_snapshot() {
    if (!secondary_storage_path || !current_activity_folder) {
        return;
    }
    crash_report_snapshot(format_bounded(folder_size, "%s%s/%s/%s", secondary_storage_path->c_str(),
                                         current_activity_folder->c_str(), "system_monitoring",
                                         "monitoring_basic"));
}

void crash_report_snapshot(const std::string &folder) {
    const std::string reports = folder + "/Crash_Reports";
    if (!make_folder(reports.c_str(), report_folder_permissions)) {
        log_error("Could not create '%s'", reports.c_str());
        return;
    }
    const std::string archive = reports + "/" + date_format_now("Debug_%Y-%m-%dT%H%M%S%Z.tgz");
    // Started under its name, not its path, which stands in for the interpreter's script.
    const char *const argv[] = {script, archive.c_str(), nullptr};
    errno = 0;
    const int status = run_program(argv, program_descriptors::none, -1, limit_of(script).limit);
    if (status == -1) {
        log_error("%s Execve failed.", __func__);
    } else if (WIFSIGNALED(status)) {
        log_error("The script of crash report '%s' was killed.", archive.c_str());
    }
    crash_report_being_created = 1;
}
