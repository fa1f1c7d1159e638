#include "session_info.h"

#include "fileutil.h"
#include "log.h"
#include "session_globals.h"
#include "shell_word.h"
#include "strutil.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
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
