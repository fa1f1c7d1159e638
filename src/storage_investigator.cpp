#include "storage_investigator.h"

#include "fileutil.h"
#include "log.h"
#include "session_globals.h"
#include "shell_word.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace {

constexpr std::size_t line_max = 199;
constexpr std::size_t mount_line_max = 1023;
constexpr std::size_t df_command_size = 1024;
constexpr std::size_t du_command_size = 256;
constexpr int full_percent = 90;
constexpr gint64 states_age_us = gint64{30} * G_USEC_PER_SEC;
constexpr const char *storage_mounts = "/var/spool/storage/";
constexpr const char *storages_command =
    "dbus-send --system --print-reply --reply-timeout=6000 --dest=com.tarvo.Storage "
    "--type=method_call /com/tarvo/Storage com.tarvo.Storage.GetAllStoragesInfo";

// Positions in a storage's block, counted from the line with its name.
constexpr unsigned status_position = 3;
constexpr unsigned first_property = 5;
constexpr unsigned last_property = 16;
constexpr unsigned must_be_true = 6;
constexpr unsigned must_be_false[] = {9, 10};

// The storages whose last test failed. Names also come from requests: cleared when it gets long.
std::set<std::string> failing;
constexpr std::size_t failing_max = 50;

std::vector<storage_state> states;
gint64 states_asked_us = 0; // 0: never

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

// What stands between a line's quotes.
std::string quoted(const std::string &line) {
    const std::size_t begin = line.find('"');
    const std::size_t end = line.rfind('"');
    return begin == std::string::npos || end == begin ? ""
                                                      : line.substr(begin + 1, end - begin - 1);
}

// The storages of the service's reply; the line after each "struct {" has the name.
std::vector<storage_state> states_in(const std::vector<std::string> &reply) {
    std::vector<storage_state> found;
    for (std::size_t i = 0; i + 1 < reply.size(); ++i) {
        const std::string name = contains(reply[i], "struct {") ? quoted(reply[i + 1]) : "";
        if (name.empty()) {
            continue;
        }
        storage_reply_reader reader(name);
        for (const std::string &line : reply) {
            reader.take_line(line);
        }
        const std::size_t status = i + 1 + status_position;
        found.push_back(
            {name, status < reply.size() ? quoted(reply[status]) : "", reader.is_healthy(), 0, -1});
    }
    return found;
}

// Takes size and usage from a line of df, as percent_in() shows it.
void take_usage(storage_state &state, const std::string &line) {
    const std::size_t size = line.find_first_not_of(' ', std::min(line.find(' '), line.size()));
    state.size_kb =
        size == std::string::npos ? 0 : std::max(0LL, decimal_prefix(line.substr(size)));
    state.percent_used = percent_in(line);
}

} // namespace

const std::vector<storage_state> &storage_states() {
    const gint64 now_us = g_get_monotonic_time();
    if (states_asked_us != 0 && now_us - states_asked_us < states_age_us) {
        return states;
    }
    std::vector<std::string> reply;
    command_read_lines(storages_command, line_max,
                       [&reply](const std::string &line) { reply.push_back(line); });
    states = states_in(reply);
    states.push_back({"localdata", "OK", true, 0, -1});
    // df's last line is the internal storage's, whatever its mount point is.
    std::string last;
    command_read_lines("/bin/df -k -P; /bin/df -k -P /usr/local/packages/Vandrel/localdata",
                       line_max, [&last](const std::string &line) {
                           for (storage_state &state : states) {
                               if (line.ends_with(storage_mounts + state.name + "\n")) {
                                   take_usage(state, line);
                               }
                           }
                           last = line;
                       });
    if (contains(last, "%")) {
        take_usage(states.back(), last);
    }
    states_asked_us = now_us;
    return states;
}

std::vector<storage_state> recent_storage_states(std::chrono::seconds age_max) {
    const auto age = std::chrono::microseconds(g_get_monotonic_time() - states_asked_us);
    return states_asked_us != 0 && age <= age_max ? states : std::vector<storage_state>();
}

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
    command_pipe pipe(storages_command);
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
        failing.erase(name_to_go_by);
        return true;
    }
    if (failing.size() >= failing_max) {
        failing.clear();
    }
    if (failing.insert(name_to_go_by).second && log_also) {
        errno = 0;
        log_error("%s: Lost connection to storage location: %s, no data can be saved.",
                  "determine_if_this_storage_is_ok", name_to_go_by);
    }
    return false;
}

// "38 27 179:1 / /var/spool/storage/SD_DISK rw,nosuid - ext4 /dev/mmcblk0p1 rw"
bool is_mount_point(const std::string &path) {
    const unique_file file = file_open("/proc/self/mountinfo", "r");
    const std::string word = " " + path + " ";
    std::string line;
    bool found = false;
    while (file && !found && read_line(file.get(), mount_line_max, line)) {
        found = line.substr(0, line.find(" - ")).find(word) != std::string::npos;
    }
    errno = 0;
    return found;
}

int get_storage_use_pcent(const char *path, bool *has_hung) {
    if (path == nullptr || path[0] != '/') {
        log_error("Expected an absolute path, got '%s'", path == nullptr ? "[NULL]" : path);
        return -1;
    }
    const std::string command = format_bounded(df_command_size, "/bin/df -k -P '%s'", path);
    command_pipe pipe(command.c_str(), std::nothrow);
    if (!pipe) {
        log_error("Could not popen: %s", command.c_str());
        return -1;
    }
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
