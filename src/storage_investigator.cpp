#include "storage_investigator.h"

#include "log.h"
#include "session_globals.h"
#include "shell_word.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t line_max = 199;
constexpr std::size_t df_command_size = 1024;
constexpr std::size_t du_command_size = 256;
constexpr int full_percent = 90;

// Positions in a storage's block, counted from the line with its name.
constexpr unsigned status_position = 3;
constexpr unsigned first_property = 5;
constexpr unsigned last_property = 16;
constexpr unsigned must_be_true = 6;
constexpr unsigned must_be_false[] = {9, 10};

bool warn = true; // the last test found its storage healthy

bool contains(const std::string &line, const char *text) {
    return line.find(text) != std::string::npos;
}

// "Filesystem 1024-blocks Used Available Capacity Mounted on"
// "/dev/mmcblk0p1 31154688 6230938 24923750 20% /var/spool/storage/SD_DISK"
int percent_in(const std::string &line) {
    const std::size_t percent = line.find('%');
    if (percent == std::string::npos) {
        log_error("Could not find percent char in '%s'", line.c_str());
        return 0;
    }
    int value = 0;
    int factor = 1;
    // At most three digits, and never the line's first character.
    for (std::size_t i = percent; i > 1 && percent - i < 3; --i) {
        const char digit = line[i - 1];
        if (digit < '0' || digit > '9') {
            break;
        }
        value += (digit - '0') * factor;
        factor *= 10;
    }
    return value;
}

} // namespace

storage_reply_reader::storage_reply_reader(const std::string &name)
    : quoted_name_("\"" + name + "\"") {}

void storage_reply_reader::take_line(const std::string &line) {
    if (!in_block_) {
        // A name is found whole: "SD_DISK" is no "D_DISK".
        in_block_ = quoted_name_.size() > 2 && contains(line, quoted_name_.c_str());
        position_ = in_block_ ? 1 : 0;
        return;
    }
    const unsigned position = position_++;
    if (position == status_position) {
        status_ok_ = contains(line, "OK");
    } else if (position >= first_property) {
        if (contains(line, "}")) {
            in_block_ = false;
        } else if (position <= last_property) {
            if (contains(line, "false")) {
                properties_[position] = false;
            } else if (contains(line, "true")) {
                properties_[position] = true;
            }
        }
    }
}

bool storage_reply_reader::is_healthy() const {
    return status_ok_ && properties_[must_be_true] &&
           std::none_of(std::begin(must_be_false), std::end(must_be_false),
                        [this](unsigned position) { return properties_[position]; });
}

bool determine_if_this_storage_is_ok(const char *name_to_go_by, bool log_also) {
    return ask_whether_storage_is_ok(name_to_go_by, log_also).value_or(false);
}

std::optional<bool> ask_whether_storage_is_ok(const char *name_to_go_by, bool log_also) {
    storage_reply_reader reply(name_to_go_by);
    command_pipe pipe("dbus-send --system --print-reply --reply-timeout=6000 "
                      "--dest=com.tarvo.Storage --type=method_call /com/tarvo/Storage "
                      "com.tarvo.Storage.GetAllStoragesInfo");
    std::string line;
    while (pipe.next_line(line_max, line)) {
        reply.take_line(line);
    }
    const int status = pipe.close();
    if (pipe.has_hung()) {
        return std::nullopt;
    }
    if (was_ended_by_signal(status)) {
        return false;
    }
    if (reply.is_healthy()) {
        warn = true;
        return true;
    }
    if (warn && log_also) {
        errno = 0;
        log_error("%s: Lost connection to storage location: %s, no data can be saved.",
                  "determine_if_this_storage_is_ok", name_to_go_by);
    }
    warn = false;
    return false;
}

int get_storage_use_pcent(const char *path, bool *has_hung) {
    if (path == nullptr || path[0] != '/') {
        log_error("Expected an absolute path, got '%s'", path == nullptr ? "[NULL]" : path);
        return -1;
    }
    const std::string command = format_bounded(df_command_size, "/bin/df -k -P '%s'", path);
    command_pipe pipe(command.c_str());
    std::string line;
    if (!pipe.next_line(line_max, line)) {
        (void)pipe.close();
        if (has_hung != nullptr) {
            *has_hung = pipe.has_hung();
        }
        return -1;
    }
    return pipe.next_line(line_max, line) ? percent_in(line) : 0;
}

bool storage_has_room(int percent_used) {
    return percent_used < full_percent;
}

bool check_partition_usage(const char *path) {
    const int percent = get_storage_use_pcent(path);
    if (percent < 0) {
        log_warning("Could not get usage of partition for path '%s'.",
                    path == nullptr ? "[NULL]" : path);
        return false;
    }
    return storage_has_room(percent);
}

unsigned long get_dir_size_bytes(const std::string &path) {
    const std::string command = format_text("du -bks \"%s\"", path.c_str());
    if (command.size() >= du_command_size || !is_safe_in_double_quotes(path)) {
        log_warning("Could not get the size of '%s': The path can not be used.", path.c_str());
        return 0;
    }
    std::string last;
    command_read_lines(command.c_str(), line_max,
                       [&last](const std::string &line) { last = line; });
    const long long kibibytes = decimal_prefix(last);
    return kibibytes < 0 ? 0 : static_cast<unsigned long>(kibibytes) * 1024;
}

gboolean storage_consumption_log_message(gpointer) noexcept {
    if (const auto directory = session_directory()) {
        log_info("System monitoring session is consuming %lu B on %s",
                 get_dir_size_bytes(*directory),
                 storage_id ? storage_id->c_str() : "Internal Storage");
    }
    return G_SOURCE_REMOVE;
}
