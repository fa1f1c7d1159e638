#include "session_list.h"

#include "app_state.h"
#include "dateutil.h"
#include "debug_mode.h"
#include "fileutil.h"
#include "log.h"
#include "monitoring_session.h"
#include "scheduled_tasks.h"
#include "session_archive.h"
#include "session_finder.h"
#include "session_globals.h"
#include "session_info.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "syslog_triggers.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr const char *found_list = "/usr/local/packages/Vandrel/localdata/"
                                   "found_monitoring_sessions.txt";
constexpr const char *lost_list = "/usr/local/packages/Vandrel/localdata/"
                                  "lost_monitoring_sessions.txt";
constexpr const char *syslog_server_path = "/usr/local/packages/Vandrel/localdata/"
                                           "syslog_server.info";
constexpr long long list_min = 61;  // bytes; a shorter file holds no whole block
constexpr std::size_t path_tag = 5; // "Path:"
constexpr std::size_t list_line_max = 299;
constexpr std::size_t server_line_max = 118;
constexpr const char *still_active = "Still active";
constexpr std::size_t sessions_max = 10'000; // a damaged list names no more

// One block of a list.
struct listed_session {
    std::string path;
    std::vector<std::string> monitors;
    std::string start_time;
    std::string end_time;
};

// Which line of a block comes next.
enum class expected { path, monitor_header, monitor, start_time, end_header, end_time };

bool is_path_line(const std::string &line) {
    return line.starts_with('P');
}
bool is_monitor_header(const std::string &line) {
    return line.size() > 3 && line[0] == 'M' && line[3] == 'i';
}

// "Path:/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/20230531_08_27_40"
// "Monitoring:"
// "monitoring_basic"
// "StartTime:"
// "Wed May 31 08:27:40 CEST 2023"
// "EndTime:"
// "Still active"
class list_reader {
  public:
    explicit list_reader(session_list_kind kind) : kind_(kind) {}

    void take_line(const std::string &line) {
        switch (next_) {
        case expected::path:
        case expected::end_header:
            if (next_ == expected::end_header && line.starts_with("En")) {
                next_ = expected::end_time;
            } else if (is_path_line(line) && line.size() > path_tag) {
                sessions_.push_back({line.substr(path_tag), {}, {}, {}});
                next_ = expected::monitor_header;
            }
            break;
        case expected::monitor_header:
            if (is_monitor_header(line)) {
                next_ = expected::monitor;
            } else if (line.starts_with("St")) {
                next_ = expected::start_time;
            }
            break;
        case expected::monitor:
            if (line.starts_with("St")) {
                next_ = expected::start_time;
            } else {
                sessions_.back().monitors.push_back(line);
            }
            break;
        case expected::start_time:
            sessions_.back().start_time = line;
            next_ = kind_ == session_list_kind::found ? expected::end_header : expected::path;
            break;
        case expected::end_time:
            sessions_.back().end_time = line;
            next_ = expected::path;
            break;
        }
    }

    [[nodiscard]] const std::vector<listed_session> &sessions() const { return sessions_; }

  private:
    session_list_kind kind_;
    expected next_ = expected::path;
    std::vector<listed_session> sessions_;
};

// Cache: measuring a thousand sessions takes seconds. The size of an ended session is valid as long
// as its folder, information file and archive don't change.
struct measured_session {
    timespec changed[3];
    unsigned long bytes;
};
std::map<std::string, measured_session> measured_sessions;

unsigned long size_of(const listed_session &session) {
    if (session.end_time.empty() || session.end_time == still_active) {
        return get_dir_size_bytes(session.path);
    }
    measured_session now{};
    const std::string files[] = {session.path, session.path + "/Session_Information.txt",
                                 session_archive_path(session.path)};
    for (std::size_t i = 0; i < std::size(files); ++i) {
        struct stat status {};
        if (::lstat(files[i].c_str(), &status) == 0) {
            now.changed[i] = status.st_mtim;
        }
    }
    errno = 0;
    const auto known = measured_sessions.find(session.path);
    if (known != measured_sessions.end() &&
        std::memcmp(known->second.changed, now.changed, sizeof now.changed) == 0) {
        return known->second.bytes;
    }
    now.bytes = get_dir_size_bytes(session.path);
    if (measured_sessions.size() >= sessions_max) {
        measured_sessions.clear();
    }
    if (now.bytes > 0) { // could be measured
        measured_sessions[session.path] = now;
    }
    return now.bytes;
}

std::string session_json(const listed_session &session, session_list_kind kind) {
    std::string json =
        "{\"Path\":\"" + session.path + "\", \"Monitoring\": [{ \"Monitor\":\"Just to start\"}";
    for (const std::string &monitor : session.monitors) {
        json += ",{\"Monitor\":\"" + monitor + "\"}";
    }
    json += "]";
    // The list is a file that others can write: only a session's path is used.
    const bool present = is_monitory_dir(session.path.c_str());
    if (kind == session_list_kind::found) {
        const bool zipped = is_file(session_archive_path(session.path).c_str());
        if (!zipped && present) {
            file_remove((session.path + "/monitor.zip").c_str());
        }
        json += format_text(",\"zipping\":%s", zipped ? "\"no\"" : "\"yes\"");
    }
    json += format_text(",\"size\":\"%lu\"", present ? size_of(session) : 0);
    json += ", \"StartTime\": \"" + session.start_time + "\"";
    if (kind == session_list_kind::found) {
        json += ", \"EndTime\": \"" + session.end_time + "\"";
    }
    return json + "}";
}

// The file's sessions; none when it is missing (logged at the level of its kind), too short, or
// unreadable (a warning).
std::vector<listed_session> read_list(const char *path, session_list_kind kind) {
    if (!is_file(path)) {
        errno = 0;
        if (kind == session_list_kind::found) {
            log_notice("No previous monitoring sessions were found.");
        } else {
            log_error("No previous monitoring sessions were found.");
        }
        return {};
    }
    if (filesize(path) < list_min) {
        return {};
    }
    const unique_file file = file_open_or_warn(path, "r");
    list_reader reader(kind);
    std::string line;
    while (file && reader.sessions().size() <= sessions_max &&
           read_line(file.get(), list_line_max, line)) {
        // Without a newline it is a truncated line.
        if (str_terminate_at(line, '\n')) {
            reader.take_line(line);
        }
    }
    return reader.sessions();
}

std::string state_json() {
    const bool on_storage = monitory_active && connection_lost_count == 0 && storage_id;
    const bool space = !on_storage || (determine_if_this_storage_is_ok(storage_id->c_str(), true) &&
                                       is_directory(session_directory().value_or("").c_str()));
    const unsigned long lost_count = on_storage ? (space ? 0UL : 1UL) : connection_lost_count;
    const auto value = [](const char *name) { return parameter_get(name).value_or(""); };
    return format_text(
        "{ \"active\":%d,\"space\":%d, \"monitor_start_time\":\"%s\", \"current_storage\":\"%s\" , "
        "\"device\": { \"IP\": \"%s\", \"Time\":\"%s\",\"MAC\": \"%s\",\"Resolutions\":\"%s\","
        "\"Model\": \"%s\", \"FW\": \"%s\", \"SerialNumber\":\"%s\", \"Prodtype\":\"%s\","
        "\"Architecture\":\"%s\",\"syslog-ng-installed\":%d,\"rsyslog-installed\":%d,"
        "\"libcapture\":%d}, \"connection_lost_count\":%lu,    "
        "\"monitor_active_minutes_count\":%lu ",
        monitory_active.load(), space, monitor_start_time.value_or("").c_str(),
        session_directory().value_or("").c_str(), value("root.Network.eth0.IPAddress").c_str(),
        date_format_now("%H:%M:%S %Y-%m-%d").c_str(), value("root.Network.eth0.MACAddress").c_str(),
        value("root.Properties.Image.Resolution").c_str(),
        value("root.Brand.ProdShortName").c_str(),
        value("root.Properties.Firmware.Version").c_str(), serial_number.value_or("").c_str(),
        value("root.Brand.ProdType").c_str(), value("root.Properties.System.Architecture").c_str(),
        syslog_program_installed == syslog_variant_syslog_ng,
        syslog_program_installed == syslog_variant_rsyslog, has_libcapture, lost_count,
        monitor_active_minutes_count);
}

std::string miscellaneous_json() {
    std::string json =
        format_text(",\"miscellaneous\":{\"ptz_test_interval\":%d, \"ptz_test_timer\":%lu, "
                    "\"ptz_test_starting\":%lu, \"ptz_test_given_times\":\"%s\", "
                    "\"automatic_restart_interval\":%d,\"automatic_restart_timer\":%lu, "
                    "\"automatic_restart_starting\":%lu, \"current_tick\":%lu, "
                    "\"automatic_restart_given_times\": \"%s\"",
                    ptz_test_interval, ptz_nbr_of_ticks_until_activation, ptz_starting_tick,
                    ptz_test_given_times.value_or("None").c_str(), automatic_restart_interval,
                    nbr_of_ticks_until_activation, starting_tick, timer_count,
                    automatic_restart_given_times.value_or("None").c_str());
    json += format_text(",\"advanced_debug_mode\":{\"status-log\":%d,\"status-interval\":%d,"
                        "\"crash_recurrence\":%lu,\"crash_recurrence_tick\":%lu}",
                        advanced_debug_mode_crash_log_message_activated.load(),
                        advanced_debug_mode_crash_interval_activated,
                        advanced_debug_mode_crash_recurrence,
                        advanced_debug_mode_crash_recurrence_tick);
    json += ", \"syslog_remote_server\":\"";
    if (const unique_file file = file_open(syslog_server_path, "r")) {
        std::string line;
        while (read_line(file.get(), server_line_max, line)) {
            str_terminate_at(line, '\n');
            json += line;
        }
    } else {
        json += "None";
    }
    errno = 0;
    return json + "\"}";
}

} // namespace

std::string session_list_json(const char *path, session_list_kind kind) {
    std::string json;
    for (const listed_session &session : read_list(path, kind)) {
        json += (json.empty() ? "" : ",") + session_json(session, kind);
    }
    return "[" + json + "]";
}

void action_list_data(GDataOutputStream *stream, GHashTable *arguments) {
    if (!serial_number) {
        log_info("STOP 1.1");
        read_serial_number();
    }
    const char *request = http_argument(arguments, "special_request");
    const std::string_view special = request == nullptr ? "" : request;
    if (special == "export" || special == "reload") {
        collect_only_from_this_camera = false;
        collect_monitoring_sessions(special == "export" ? std::nullopt : serial_number);
    }
    // No lines against caches in this reply.
    http_write(stream, "Status: 200 OK\r\nContent-Type: application/json; charset=utf-8\r\n\r\n" +
                           state_json() + miscellaneous_json());
    http_write(stream, ",\"systemlog_trigger_rules\":");
    output_all_triggers_as_json_string(stream);
    http_write(stream, ", \"sessions\":" + session_list_json(found_list, session_list_kind::found));
    http_write(stream, ", \"broken_sessions\":" +
                           session_list_json(lost_list, session_list_kind::lost) + "}");
}
