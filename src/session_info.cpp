#include "session_info.h"

#include "app_state.h"
#include "dateutil.h"
#include "fileutil.h"
#include "log.h"
#include "session_globals.h"
#include "shell_word.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "sysutil.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>

namespace {

constexpr std::size_t field_name_max = 1000;
constexpr std::size_t info_path_size = 512;
constexpr std::size_t info_line_max = 1023;
constexpr std::size_t info_size_max = 1 << 20; // far above what the daemon writes
constexpr unsigned minutes_a_day = 1440;

// A link on a share could lead anywhere.
bool is_real(const char *path, mode_t type) {
    struct stat status {};
    return ::lstat(path, &status) == 0 && (status.st_mode & S_IFMT) == type;
}

bool starts_with(const char *text, const char *start) {
    return std::strncmp(text, start, std::strlen(start)) == 0;
}

bool is_below_a_storage(const char *path) {
    return starts_with(path, "/var/spool/storage/") && std::strstr(path, "Vandrel") != nullptr;
}

// The path also goes into command lines: only the names that the daemon itself makes.
bool is_plain_directory(const char *path) {
    return std::strlen(path) <= session_path_max && is_shell_word(path) &&
           std::strstr(path, "/..") == nullptr && is_real(path, S_IFDIR);
}

// For a full storage: no room for a second file, but the old one has its blocks.
bool write_in_place(const std::string &path, const std::string &text) {
    const unique_fd file = file_descriptor(path.c_str(), O_WRONLY);
    return file &&
           TEMP_FAILURE_RETRY(::pwrite(file.get(), text.data(), text.size(), 0)) ==
               static_cast<ssize_t>(text.size()) &&
           ::ftruncate(file.get(), static_cast<off_t>(text.size())) == 0 &&
           ::fsync(file.get()) == 0;
}

// Rewrites the session's information file: `edit_line` changes each line (with its newline) in
// place, `text_at_end` is appended. Through a temporary of the given name, or in place on a full
// storage. False after a warning: the old file stays.
bool rewrite_session_info(const std::string &session_directory, const char *temporary_name,
                          std::size_t line_max,
                          const std::function<void(std::string &line)> &edit_line,
                          const std::function<std::string()> &text_at_end) {
    const std::string path = format_bounded(info_path_size, "%s/%s", session_directory.c_str(),
                                            "Session_Information.txt");
    const std::string temporary =
        format_bounded(info_path_size, "%s/%s", session_directory.c_str(), temporary_name);
    std::string text;
    {
        const unique_file file = file_open_or_warn(path.c_str(), "r");
        std::string line;
        while (file && text.size() <= info_size_max && read_line(file.get(), line_max, line)) {
            edit_line(line);
            text += line;
        }
        if (!file) {
            return false;
        }
        if (text.size() > info_size_max || std::ferror(file.get()) != 0) {
            log_warning("Could not write '%s': %s", temporary.c_str(),
                        text.size() > info_size_max ? "Too much text" : std::strerror(errno));
            return false;
        }
    }
    text += text_at_end();
    file_remove(temporary.c_str()); // that a power cut has left
    const bool written = file_write_new(temporary.c_str(), text);
    const int failure = written ? EIO : errno;
    if (written && file_rename(temporary.c_str(), path.c_str())) {
        return true;
    }
    struct stat status {};
    const bool opened = ::lstat(temporary.c_str(), &status) == 0;
    file_remove(temporary.c_str());
    if ((written || failure == ENOSPC) && write_in_place(path, text)) {
        return true;
    }
    errno = failure;
    if (opened) {
        log_warning("Could not write '%s': %s", temporary.c_str(), std::strerror(failure));
    } else {
        log_cannot_open(temporary.c_str());
    }
    errno = 0;
    return false;
}

constexpr std::size_t signature_line_max = 255;
constexpr std::size_t information_line_max = 399;

// --- The session that ran before a restart

constexpr long long session_file_min = 10; // bytes; a shorter file names no session
constexpr std::size_t session_line_max = 200;
constexpr int session_lines_max = 100; // of a damaged file no more is read, nor complained about
constexpr std::size_t key_length = 4;  // one separator, whatever it is, follows
constexpr std::size_t start_time_max = 99;

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

} // namespace

bool is_start_stamp(const char *folder) {
    unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    return std::strlen(folder) == session_folder_length &&
           std::sscanf(folder, "%4u%2u%2u_%2u_%2u_%2u", &year, &month, &day, &hour, &minute,
                       &second) == 6 &&
           year >= 1000 && year <= 9999 && month <= 12 && day <= 31 && hour <= 24 && minute <= 60 &&
           second <= 60;
}

bool is_monitory_dir(const char *path) {
    const bool below_a_storage =
        path != nullptr &&
        (starts_with(path, "/usr/local/packages/Vandrel/localdata") || is_below_a_storage(path));
    return below_a_storage && is_plain_directory(path) &&
           is_start_stamp(std::strrchr(path, '/') + 1);
}

bool is_trace_dir(const char *path) {
    // Only one spelling per path: it is compared with the running trace's, and a trailing slash
    // would follow a link.
    return path != nullptr && is_below_a_storage(path) && std::strstr(path, "//") == nullptr &&
           std::strstr(path, "/.") == nullptr && path[std::strlen(path) - 1] != '/' &&
           is_plain_directory(path) &&
           is_real((std::string(path) + "/wireshark_signature.txt").c_str(), S_IFREG) &&
           !is_real((std::string(path) + "/system_monitoring").c_str(), S_IFDIR);
}

void read_and_update_session_info(const std::string &session_directory, const std::string &field,
                                  session_info_update update, const std::string &default_value) {
    if (field.size() > field_name_max) {
        log_error("Cannot read field names larger than 1000 characters, got: %s", field.c_str());
        return;
    }
    const std::string start = field + ": ";
    bool found = false;
    const auto edit = [&](std::string &line) {
        if (line.starts_with(start)) {
            if (const auto value = update(line.substr(start.size()))) {
                line = start + *value + "\n";
                found = true;
            }
        }
    };
    const auto end = [&] { return found ? "" : start + default_value + "\n"; };
    rewrite_session_info(session_directory, "Session_Information_tmp_tmp.txt", info_line_max, edit,
                         end);
}

std::optional<std::string> update_data_points(const std::string &old_value) {
    collected_data_points = static_cast<unsigned>(decimal_prefix_unsigned(old_value)) + 1;
    return format_text("%lu", *collected_data_points);
}

std::optional<std::string> update_duration(const std::string &old_value) {
    unsigned days = 0, hours = 0, minutes = 0;
    if (std::sscanf(old_value.c_str(), "%u Days %u hours %u minutes", &days, &hours, &minutes) !=
        3) {
        return std::nullopt;
    }
    const unsigned total = days * minutes_a_day + hours * 60 + minutes + 1;
    monitor_active_minutes_count = total;
    return format_text("%u Days %u hours %u minutes", total / minutes_a_day, total / 60 % 24,
                       total % 60);
}

void update_number_of_collected_data_points(const std::string &session_directory) {
    read_and_update_session_info(session_directory, "Collected Data Points", update_data_points,
                                 "1");
}

void update_session_duration(const std::string &session_directory) {
    read_and_update_session_info(session_directory, "Duration", update_duration,
                                 "0 Days 0 hours 0 minutes");
}

void write_session_information(const std::string &directory, const crash_report_plan &plan) {
    std::string text;
    const auto model = parameter_get("root.Brand.ProdShortName");
    const auto firmware = parameter_get("root.Properties.Firmware.Version");
    if (model && firmware) {
        text += "Model Name: " + *model + "\r\nSerial Number: " + serial_number.value_or("") +
                "\r\nFirmware version: " + *firmware + "\r\n";
    }
    text += "Edge storage location: " + storage_id.value_or("Internal Storage") + "\r\n";
    if (storage_id) {
        if (plan.interval) {
            text += format_text(
                "Advanced Debug Mode: Scheduled Crash Report generation every %d hours\r\n",
                static_cast<int>(*plan.interval / 60));
        }
        if (plan.log_messages) {
            text += "Advanced Debug Mode: Crash Report generation based on Log Message "
                    "configured.\r\n" +
                    *plan.log_messages;
        }
    }
    text += "Start Time of the session: " + monitor_start_time.value_or("") +
            "\r\nStop Time of the session: Still active\r\nCollected Data Points: 0\r\n";
    file_replace((directory + "/Session_Information.txt").c_str(), text);
}

void complete_signature(const std::string &directory) {
    const std::string path = directory + "/.signature";
    const unique_fd target = file_descriptor(path.c_str(), O_WRONLY | O_CREAT | O_APPEND);
    if (!target) {
        log_cannot_open(path.c_str());
        return;
    }
    if (const unique_file file = file_open(path.c_str(), "r")) {
        std::string line;
        while (read_line(file.get(), signature_line_max, line)) {
            if (line.starts_with("End")) {
                return;
            }
        }
    }
    (void)system_ret("(echo \"End:\" && date)", target.get());
}

bool record_session_stop(const std::string &directory) {
    return rewrite_session_info(
        directory, "Session_Information_tmp.txt", information_line_max,
        [](std::string &line) {
            if (line.find("Stop Time of the session:") != std::string::npos ||
                line.find("Session Size: ") != std::string::npos) {
                line.clear();
            }
        },
        [] {
            return "Stop Time of the session: " + date_format_now(date_format_information) + "\r\n";
        });
}

void append_session_size(const std::string &directory) {
    const auto bytes = static_cast<long long>(get_dir_size_bytes(directory));
    if (bytes == 0) {
        return; // it could not be measured
    }
    char size[24];
    suffix_bytes(size, sizeof size, bytes);
    const unique_file file =
        file_open_or_warn((directory + "/Session_Information.txt").c_str(), "a");
    if (file) {
        std::fprintf(file.get(), "Session Size: %s\r\n", size);
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
    for (int lines = 0; lines < session_lines_max && read_line(file.get(), session_line_max, line);
         ++lines) {
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

bool names_a_session_directory(const stored_session &session) {
    return session.root && session.folder && is_shell_word(*session.folder) &&
           session.folder->find('/') == std::string::npos && *session.folder != "." &&
           *session.folder != ".." &&
           session.root->size() + session.folder->size() <= session_directory_max;
}
