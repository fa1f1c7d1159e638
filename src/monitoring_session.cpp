#include "monitoring_session.h"

#include "fileutil.h"
#include "log.h"
#include "session_globals.h"
#include "shell_word.h"
#include "strutil.h"
#include "sysutil.h"

namespace {

constexpr long long session_file_min = 10; // bytes; a shorter file names no session
constexpr std::size_t line_max = 200;
constexpr int lines_max =
    100; // a damaged file of megabytes gets no line of log for each of its own
constexpr std::size_t key_length = 4; // one separator, whatever it is, follows
constexpr std::size_t start_time_max = 99;

// What current_monitoring_session.txt says, before any of it is believed.
struct stored_session {
    std::optional<std::string> root;
    std::optional<std::string> id;
    std::optional<std::string> folder;
    std::optional<std::string> start_time;
    std::optional<unsigned long> crash_recurrence;
    std::string image_interval;
};

// "SECS:SD_DISK", "ACTI:20230531_08_27_40"; the last line of a key wins.
void take_line(stored_session &session, const std::string &line) {
    const std::string key = line.substr(0, key_length);
    const std::string value = line.substr(key_length + 1);
    if (key == "SECS" && value.find("localdata") != std::string::npos) {
        session.root = localdata_root;
        session.id.reset();
    } else if (key == "SECS") {
        session.root = storage_root_of(value);
        session.id = value;
    } else if (key == "ACTI") {
        session.folder = value;
    } else if (key == "CRAS") {
        session.crash_recurrence = decimal_prefix_unsigned(value);
    } else if (key == "TIME") {
        session.start_time = value.substr(0, start_time_max);
    } else if (key == "CAPT") {
        session.image_interval = value;
    }
}

std::optional<stored_session> read_stored_session() {
    if (!is_file(current_monitoring_session_path) ||
        filesize(current_monitoring_session_path) < session_file_min) {
        return std::nullopt;
    }
    const unique_file file = file_open_or_warn(current_monitoring_session_path, "r");
    if (!file) {
        return std::nullopt;
    }
    stored_session session;
    std::string line;
    for (int lines = 0; lines < lines_max && read_line(file.get(), line_max, line); ++lines) {
        str_terminate_at(line, '\n');
        if (line.size() <= key_length) {
            log_warning("Unexpectedly short line '%s' in '%s'", line.c_str(),
                        current_monitoring_session_path);
            continue;
        }
        take_line(session, line);
    }
    return session;
}

// Root and folder become paths and parts of command lines.
bool names_a_session_directory(const stored_session &session) {
    return session.root && session.folder && is_shell_word(*session.folder) &&
           session.folder->find('/') == std::string::npos && *session.folder != "." &&
           *session.folder != ".." &&
           session.root->size() + session.folder->size() < session_directory_size;
}

// The device log of the time around the restart, which the continuous log could not follow.
void append_device_log(const std::string &directory) {
    const std::string command = format_bounded(
        256, "cat /var/log/info.log /var/log/error.log | sort >> %s/%s/%s/%s &", directory.c_str(),
        "system_monitoring", "monitoring_basic", "Continuous_Syslog.txt");
    (void)system_ret(command.c_str());
}

} // namespace

bool resume_monitoring_session() {
    std::optional<stored_session> stored = read_stored_session();
    if (!stored) {
        return false;
    }
    if (!names_a_session_directory(*stored)) {
        log_warning("No monitoring session can be continued from '%s': storage or folder is "
                    "missing or can not be used.",
                    current_monitoring_session_path);
        return false;
    }
    _set_secondary_storage_path(stored->root);
    _set_storage_id(stored->id);
    _set_current_activity_folder(stored->folder);
    if (stored->start_time) {
        monitor_start_time = stored->start_time;
    }
    if (stored->crash_recurrence) {
        advanced_debug_mode_crash_recurrence = *stored->crash_recurrence;
        advanced_debug_mode_crash_recurrence_tick = 0;
    }
    log_info("Continuing System Monitoring Session. Device was rebooted or lost power.");
    const std::string directory = session_directory().value();
    append_device_log(directory);
    setup_session(directory, stored->image_interval);
    return true;
}

void setup_session(const std::string &, const std::string &) {
    monitory_active = true;
}
