#include "crashcatcher_core.h"

#include "fileutil.h"
#include "log.h"
#include "strutil.h"

#include <cerrno>

namespace {

constexpr const char *core_pattern_path = "/proc/sys/kernel/core_pattern";
constexpr const char *standard_pattern = "|/usr/sbin/coredump-handler %h_%t_%p.core";
constexpr const char *own_start = "|/bin/dd of=";
constexpr const char *own_end = "/coredumps/core.%e.%p.%h.%t";
// Bytes; the kernel truncates a longer pattern.
constexpr std::size_t pattern_max = 127;

std::optional<std::string> old_core_pattern;
std::optional<std::string> pending_path; // that the pattern could not be turned to yet

// The kernel takes a pattern with one write.
bool write_pattern(std::FILE *file, const std::string &pattern) {
    return std::fputs(pattern.c_str(), file) >= 0 && std::fflush(file) == 0;
}

bool is_own(const std::string &pattern) {
    const std::string text = pattern.substr(0, pattern.find('\n'));
    return text.starts_with(own_start) && text.ends_with(own_end);
}

} // namespace

void set_core_pattern(const std::string &path) {
    errno = 0;
    if (const unique_file file = file_open_or_warn(core_pattern_path, "r")) {
        std::string line;
        if (!read_line(file.get(), pattern_max + 1, line)) {
            log_error("Crash detection: Unable to read out current core pattern");
            return;
        }
        old_core_pattern = is_own(line) ? std::string(standard_pattern) + "\n" : line;
    }
    const std::string pattern = own_start + path + "core.%e.%p.%h.%t";
    if (pattern.size() > pattern_max) {
        errno = ENAMETOOLONG;
        log_error("Crash detection: Unable to set new core pattern");
        return;
    }
    const unique_file file = file_open_or_warn(core_pattern_path, "w");
    if (!file || !write_pattern(file.get(), pattern)) {
        pending_path = path;
        if (file) {
            log_error("Crash detection: Unable to set new core pattern");
        }
        return;
    }
    log_info("Crash detection: Core pattern set up successfully to: %s", path.c_str());
}

void renew_core_pattern() {
    if (!pending_path) {
        return;
    }
    const unique_file file = file_open(core_pattern_path, "w");
    if (file && write_pattern(file.get(), own_start + *pending_path + "core.%e.%p.%h.%t")) {
        log_info("Crash detection: Core pattern set up successfully to: %s", pending_path->c_str());
        pending_path.reset();
    }
    errno = 0;
}

void reset_core_pattern() {
    if (const unique_file file = file_open_or_warn(core_pattern_path, "w")) {
        const bool written = write_pattern(file.get(), old_core_pattern.value_or(standard_pattern));
        if (!written) {
            log_error("Crash detection: Unable to reset old core pattern");
        } else if (old_core_pattern) {
            log_info("Crash detection: Old core pattern reset successfully!");
        } else {
            log_info("Crash detection: Old core pattern restored to standard: %s",
                     standard_pattern);
        }
    }
    old_core_pattern.reset();
    pending_path.reset();
}

const std::optional<std::string> &get_core_pattern() {
    return old_core_pattern;
}

bool core_pattern_is_left_behind() {
    const unique_file file = file_open(core_pattern_path, "r");
    std::string line;
    errno = 0;
    return file && !old_core_pattern && read_line(file.get(), pattern_max + 1, line) &&
           is_own(line);
}
