#include "snapshots.h"

#include "csv.h"
#include "dateutil.h"
#include "filehandler.h"
#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "report_queue.h"
#include "session_globals.h"
#include "shell_word.h"
#include "strutil.h"
#include "vdrl_device_test.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t directory_size = 200;
constexpr mode_t interrupts_mode = 0666;

// Internal storage is small: it keeps one archive only.
void pack_serverreports(const std::string &basic_directory) {
    report_queue_add({format_text("( cd %s/%s && zip -J %s Server_Report_* && rm Server_Report_* )",
                                  basic_directory.c_str(), "Server_Reports", "Server_Reports.zip"),
                      "", [archive = basic_directory + "/Server_Reports/Server_Reports.zip"](int) {
                          char size[24];
                          filesize_human_readable(size, sizeof size, archive.c_str());
                          log_info("System Monitoring Session Storage Consumption on Internal "
                                   "Storage -> %s.",
                                   size);
                      }});
}

// Runs the platform's report generator in the folder, where the daemon's working directory stays.
// Not with "> FILE" in the command: a shell writes through links.
void serverreport_snapshot(const std::string &basic_directory, bool packs) {
    const std::string name = date_format_now("Server_Report_%Y-%m-%dT%H%M%S%Z.txt");
    const unique_fd folder = folder_descriptor(basic_directory.c_str());
    if (!is_shell_word(name) || !folder || ::fchdir(folder.get()) != 0) {
        log_error("Could not write a server report into '%s'", basic_directory.c_str());
        return;
    }
    report_queue_add({"gen_serverreport.sh", basic_directory + "/Server_Reports/" + name,
                      [basic_directory, packs](int) {
                          if (packs) {
                              pack_serverreports(basic_directory);
                          }
                      }});
}

} // namespace

gboolean create_interrupts_snapshot(gpointer) noexcept {
    const auto session = session_directory();
    // On a storage that has gone meanwhile nothing is made in its empty mount point.
    if (!session || !is_directory(session->c_str())) {
        return G_SOURCE_REMOVE;
    }
    const std::string directory = format_bounded(directory_size, "%s/%s/%s", session->c_str(),
                                                 "system_monitoring", "monitoring_interrupts");
    (void)make_folder(directory.c_str(), interrupts_mode);
    errno = 0;
    store_proc_interrupts(directory);
    return G_SOURCE_REMOVE;
}

void create_two_interrupts_snapshots() {
    create_interrupts_snapshot(nullptr);
    loop_add_seconds(3, create_interrupts_snapshot, nullptr);
}

void create_nc_snapshot(const std::string &session_directory) {
    const std::string path =
        format_bounded(250, "%s/%s/%s/%s", session_directory.c_str(), "system_monitoring",
                       "monitoring_devicetest", "devicetest_snapshots.csv");
    const std::string time = row_time();
    std::string rows;
    for (const nc_rules_t *rule = nc_rules.get(); rule != nullptr; rule = rule->next.get()) {
        rows += format_text("%s,%s,%s,%d,%lu,%llu,%llu,%d,%d,%d\r\n", time.c_str(),
                            csv_cell(rule->nc_name).c_str(), rule->nc_address.c_str(), rule->port,
                            static_cast<unsigned long>(rule->timer),
                            static_cast<unsigned long long>(rule->checks_total),
                            static_cast<unsigned long long>(rule->fails_total), rule->fail_count,
                            rule->nbr_of_fails, rule->connected ? 1 : 0);
    }
    append_rows(path,
                "date,time,name,address,port,interval,total_pings,total_ping_fails,"
                "consecutive_fails,fail_threshold,connected_status\r\n",
                rows);
}

void create_serverreport_snapshot(const std::string &session_directory) {
    const std::string basic_directory =
        format_bounded(directory_size, "%s/%s/%s", session_directory.c_str(), "system_monitoring",
                       "monitoring_basic");
    serverreport_snapshot(basic_directory, !storage_id);
}
