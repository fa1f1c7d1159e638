#include "process_table.h"

#include "handle.h"
#include "strutil.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr auto often_enough = std::chrono::seconds(60);

// "412 (streamd) S 1 412 412 0 -1 4194560 918 0 3 0 57 21 0 0 20 0 4 0 1029 8511488 512 ..."
struct process_stat {
    std::string name;
    std::array<std::uint64_t, 22> fields{}; // behind the name, the state first
};
constexpr std::size_t threads = 17;
constexpr std::size_t virtual_bytes = 20;
constexpr std::size_t resident_pages = 21;

std::optional<process_stat> parse_stat(std::string_view text) {
    const auto open = text.find('(');
    const auto close = text.rfind(") ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    process_stat stat;
    stat.name = text.substr(open + 1, close - open - 1);
    text.remove_prefix(close + 2);
    for (std::uint64_t &field : stat.fields) {
        field = decimal_prefix_unsigned(text);
        text.remove_prefix(std::min(text.find(' '), text.size() - 1) + (text.empty() ? 0 : 1));
    }
    return stat;
}

std::optional<process_stat> read_stat(int proc, const char *pid) {
    std::array<char, 512> text; // the name has 15 bytes, the numbers 20 digits at most
    const std::string path = std::string(pid) + "/stat";
    const unique_fd file(::openat(proc, path.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t size = file ? ::read(file.get(), text.data(), text.size()) : -1;
    return size <= 0 ? std::nullopt : parse_stat({text.data(), static_cast<std::size_t>(size)});
}

std::map<std::string, process_use> read_table() {
    std::map<std::string, process_use> table;
    const auto page_size = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    const unique_folder proc(::opendir("/proc"));
    while (const dirent *entry = proc ? ::readdir(proc.get()) : nullptr) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) {
            continue;
        }
        const auto stat = read_stat(::dirfd(proc.get()), entry->d_name);
        if (!stat || stat->fields[virtual_bytes] == 0) {
            continue;
        }
        process_use &use = table[process_folder_name(stat->name)];
        ++use.processes;
        use.threads += stat->fields[threads];
        use.resident_bytes += stat->fields[resident_pages] * page_size;
    }
    errno = 0;
    return table;
}

} // namespace

const std::map<std::string, process_use> &process_table() {
    static std::map<std::string, process_use> table;
    static clock_type::time_point read_at;
    const auto now = clock_type::now();
    if (table.empty() || now - read_at >= often_enough) {
        table = read_table();
        read_at = now;
    }
    return table;
}

std::string process_folder_name(std::string name) {
    for (char &ch : name) {
        if (std::isalnum(static_cast<unsigned char>(ch)) == 0 &&
            std::strchr("._+-", ch) == nullptr) {
            ch = '_';
        }
    }
    if (name.starts_with('.') || name.starts_with('-')) {
        name[0] = '_';
    }
    return name;
}
