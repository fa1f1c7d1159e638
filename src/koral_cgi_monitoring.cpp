#include "koral_cgi_monitoring.h"

#include "app_state.h"
#include "csv.h"
#include "dateutil.h"
#include "fileutil.h"
#include "line_parser.h"
#include "log.h"
#include "session_globals.h"
#include "strutil.h"
#include "vdrl_http_log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

namespace {

constexpr int filters_max = 50;
constexpr std::size_t filter_line_max = 511;
constexpr std::size_t filter_name_max = 255;
constexpr std::size_t user_max = 32;
constexpr std::size_t key_max = 1023;
constexpr std::size_t report_top = 10;

constexpr std::string_view api_path = "/tarvo-cgi/";
constexpr std::string_view call_start = " /tarvo-";

// A query is cut at these, which differ in every request.
constexpr std::string_view changing_parts[] = {
    "&timestamp=", "timestamp=", "recordingid=", "profile=", "&_=", "_="};

constexpr const char *default_filters =
    "# Any HTTP log message produced by the apache server\r\n"
    "# that contains the same sequence of characters\r\n"
    "# (determined by the function strstr(3)) as an entry\r\n"
    "# in this list will be copied from the monitoring_basic/HTTP.log\r\n"
    "# file to a special file found in the directory 'logfiles'.\r\n"
    "# Since a file cannot contain any '/'-characters,\r\n"
    "# these will be replaced with underscores in the filename.\r\n"
    "# The rule is applied to the characters '&' and ' ' also.\r\n"
    "# \r\n"
    "# Only the FIRST successfull match will be regarded.\r\n"
    "# So for example the list:\r\n"
    "# /tarvo-cgi/param.cgi\r\n"
    "# /tarvo-cgi/param.cgi?action=list\r\n"
    "# Will copy the line of text in the HTTP.log that appears\r\n"
    "# with the string (for example): \r\n"
    "# 'GET /tarvo-cgi/param.cgi?action=list&group=etc..'\r\n"
    "# to a file called 'tarvo-cgi_param.cgi.log', since it matched\r\n"
    "# with the first line, even if it also would have matched with\r\n"
    "# the second list entry.\r\n"
    "# \r\n"
    "# There can be up to %d filters and if you want to edit\r\n"
    "# this list and apply your new filters\r\n"
    "# then the changes will be applied after the following\r\n"
    "# request is sent to the device:\r\n"
    "# /local/Vandrel/access.cgi?action=koral_set_defined_filters\r\n"
    "# Read the device's response to see if it was successful or not.\r\n"
    "# \r\n"
    "# Here is the default list of filters that is applied to the HTTP.log:\r\n"
    "/tarvo-cgi/param.cgi?action=list\r\n"
    "/tarvo-cgi/param.cgi?action=add\r\n"
    "/tarvo-cgi/param.cgi?action=update\r\n"
    "/tarvo-cgi/com/ptz.cgi\r\n"
    "/tarvo-media\r\n"
    "/tarvo-cgi\r\n";

constexpr const char *csv_header = "Date, Time, Number of calls since last time stored, Average "
                                   "process time at this moment (microseconds)\r\n";

struct filter {
    std::string text;
    std::string file; // below the session's folder
};

// By its url, which lives in the item.
using call_table = std::unordered_map<std::string_view, std::unique_ptr<koral_cgi_monitor_item_t>>;

std::mutex mutex; // guards what follows, but not the follower's record
std::optional<std::string> http_log_storage_path;
std::time_t time_started = 0;
std::vector<filter> koral_investigated;
call_table koral_cgi_table;
std::size_t hash_size = 0;                  // items since the last release
std::map<std::string, std::string> pending; // file below the session's folder, what goes there
bool is_failing = false;                    // a failed write was logged

std::atomic<std::uint64_t> calls_seen = 0;

std::unique_ptr<thread_info> tail_process; // main loop only

std::string session_file(const std::string &below) {
    return *http_log_storage_path + "/system_monitoring/" + below;
}

// --- Lines on their way to the session's files

// Writes the lines that one read of the follower brought, one write per file.
void write_pending() {
    if (!http_log_storage_path) {
        pending.clear();
        return;
    }
    bool failed = false;
    for (const auto &[below, text] : pending) {
        const std::string path = session_file(below);
        const bool in_lines = !below.ends_with(".log");
        const int error = append_whole(path, "", text, in_lines).error;
        if (error != 0 && !failed && !is_failing) {
            errno = error;
            log_cannot_open(path.c_str());
        }
        failed = failed || error != 0;
    }
    if (!pending.empty()) {
        is_failing = failed;
    }
    pending.clear();
}

void keep_line(std::string_view line) {
    pending["monitoring_basic/HTTP_log.txt"].append(line).append("\n");
    if (const auto path = line.find(api_path); path != std::string_view::npos) {
        if (const auto end = line.find(' ', path); end != std::string_view::npos) {
            pending["monitoring_koral/KORAL_Tester.txt"]
                .append(line.substr(path, end - path))
                .append("\n");
        }
    }
    if (!monitory_active) {
        return;
    }
    for (const filter &entry : koral_investigated) {
        if (line.find(entry.text) != std::string_view::npos) {
            pending[entry.file].append(line); // these files have no line ends
            break;
        }
    }
}

// --- Statistics

// What follows the first `name` of the line, blanks skipped; nothing without it.
std::optional<std::string_view> value_of(std::string_view line, std::string_view name) {
    const auto at = line.find(name);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    line.remove_prefix(at + name.size());
    const auto start = line.find_first_not_of(" \t");
    return start == std::string_view::npos ? std::string_view() : line.substr(start);
}

std::uint32_t limited(unsigned long long value) {
    return static_cast<std::uint32_t>(
        std::min<unsigned long long>(value, std::numeric_limits<std::uint32_t>::max()));
}

std::string key_of(std::string_view line, std::size_t call) {
    std::string_view user = value_of(line, "User:").value_or("");
    user = user.substr(0, std::min(user_max, user.find_first_of(" \t")));
    std::string key(user.empty() ? "NULL" : user);
    key.append("@").append(line.substr(call + 1)).resize(std::min(key.size(), key_max));
    for (const std::string_view part : changing_parts) {
        key.resize(std::min(key.size(), key.find(part)));
    }
    key.resize(std::min(key.size(), key.find(' ')));
    key.resize(std::min(key.size(), key.find('"')));
    return key;
}

void count_again(koral_cgi_monitor_item_t &item, std::uint32_t process_time) {
    ++item.called_count;
    ++calls_seen;
    ++item.store_count;
    item.time_last = std::time(nullptr);
    item.steady_last = std::chrono::steady_clock::now();
    item.process_time_min = std::min(item.process_time_min, process_time);
    item.process_time_max = std::max(item.process_time_max, process_time);
    auto &times = item.moving_average;
    std::copy_backward(times.begin(), times.begin() + 6, times.begin() + 7);
    times[0] = process_time;
    unsigned long long sum = 0;
    for (const std::uint32_t time : times) {
        sum += time;
    }
    item.process_time_avg = limited(sum * 1000 / times.size());
}

void count_first(std::string key, std::uint32_t process_time) {
    if (hash_size >= koral_calls_max) {
        return;
    }
    if (hash_size == koral_calls_max - 1) {
        log_info(
            "KORAL CGI monitoring: No more new incoming koral calls will be tracked, a maximum "
            "of %d different calls have been reached.",
            static_cast<int>(koral_calls_max));
    }
    auto item = std::make_unique<koral_cgi_monitor_item_t>();
    item->url = std::move(key);
    item->called_count = item->store_count = 1;
    ++calls_seen;
    item->time_first = item->time_last = std::time(nullptr);
    item->steady_first = item->steady_last = std::chrono::steady_clock::now();
    item->process_time_min = item->process_time_max = process_time;
    item->moving_average.fill(process_time);
    item->process_time_avg = limited(process_time * 1000ULL);
    const std::string_view url = item->url;
    koral_cgi_table.emplace(url, std::move(item));
    ++hash_size;
}

void count_call(std::string_view line) {
    const auto call = line.find(call_start);
    if (call == std::string_view::npos) {
        return;
    }
    const std::uint32_t process_time =
        limited(decimal_prefix_unsigned(value_of(line, "Process Time:").value_or("")));
    std::string key = key_of(line, call);
    if (const auto known = koral_cgi_table.find(key); known != koral_cgi_table.end()) {
        count_again(*known->second, process_time);
    } else {
        count_first(std::move(key), process_time);
    }
}

// --- Filters

// "/tarvo-cgi/com/ptz.cgi" -> "tarvo-cgi_com_ptz.cgi.log"
std::string filter_file(std::string_view text) {
    text = text.substr(0, filter_name_max);
    if (text.starts_with('/')) {
        text.remove_prefix(1);
    }
    std::string name(text);
    for (const char ch : {'/', '&', ' '}) {
        str_replace_char(name, ch, '_');
    }
    return "monitoring_koral/logfiles/" + name + ".log";
}

int read_filters() {
    if (!http_log_storage_path) {
        return koral_no_storage;
    }
    const unique_file file =
        file_open_or_warn(session_file("monitoring_koral/filters.txt").c_str(), "r");
    if (!file) {
        return koral_filters_unreadable;
    }
    std::vector<filter> filters;
    std::string line;
    while (filters.size() < filters_max && read_line(file.get(), filter_line_max, line)) {
        str_terminate_at(line, '\r');
        str_terminate_at(line, '\n');
        if (!line.empty() && line.front() != '#') {
            filters.push_back({line, filter_file(line)});
        }
    }
    if (filters.empty()) {
        return koral_no_filters;
    }
    koral_investigated = std::move(filters);
    return koral_filters_read;
}

void install_filters() {
    const std::string text = format_text(default_filters, filters_max); // NOLINT: a constant
    if (!file_put_string(session_file("monitoring_koral/filters.txt").c_str(), text)) {
        log_notice("Could not create '%s/%s'", "monitoring_koral", "filters.txt");
    }
    (void)read_filters();
}

// --- Output

// 5 with 6 decimals is "0.000005".
std::string decimal_text(std::uint64_t value, std::size_t decimals) {
    std::string text = std::to_string(value);
    if (text.size() <= decimals) {
        text.insert(0, decimals + 1 - text.size(), '0');
    }
    return text.insert(text.size() - decimals, ".");
}

std::string time_text(std::time_t time) {
    std::tm local{};
    char text[100] = "";
    if (::localtime_r(&time, &local) != nullptr) {
        (void)std::strftime(text, sizeof text, date_format_information, &local);
    }
    return text;
}

std::string item_text(const koral_cgi_monitor_item_t &item) {
    const auto at = item.url.find('@');
    const std::string user = item.url.substr(0, at);
    const std::string path = at == std::string::npos ? "" : item.url.substr(at + 1);
    const std::int64_t lasted =
        std::chrono::floor<std::chrono::seconds>(item.steady_last - item.steady_first).count();
    const std::int64_t shown = item.time_last - item.time_first;
    // The clock was set meanwhile if the two differ by more than a second.
    const auto seconds = static_cast<std::uint64_t>(
        std::max<std::int64_t>(1, std::abs(shown - lasted) <= 1 ? shown : lasted));
    const std::uint64_t frequency = item.called_count * 1'000'000 / seconds;
    return format_text("URL: %s    User:%s\r\n"
                       "    Called %" PRIu64 " times during the interval: %s -- %s\r\n"
                       "    Average call frequency:    %s per second    %s per minute    %s per "
                       "hour\r\n"
                       "    Process time:    Max:%" PRIu32 " ms    Min:%" PRIu32
                       " ms    Average:%s ms\r\n",
                       path.c_str(), user.c_str(), item.called_count,
                       time_text(item.time_first).c_str(), time_text(item.time_last).c_str(),
                       decimal_text(frequency, 6).c_str(), decimal_text(frequency * 60, 6).c_str(),
                       decimal_text(frequency * 3600, 6).c_str(), item.process_time_max,
                       item.process_time_min, decimal_text(item.process_time_avg, 3).c_str());
}

// The user comes from the log, even after a wrong password: characters that are not harmless in a
// file name are replaced. "root@/tarvo-cgi/..." -> "root@root.csv"
std::string csv_name(const std::string &url) {
    std::string user = url.substr(0, url.find('@'));
    for (char &ch : user) {
        if (g_ascii_isalnum(ch) == 0 && std::strchr("._+-", ch) == nullptr) {
            ch = '_';
        }
    }
    if (user.starts_with('.')) {
        user.front() = '_'; // hidden files are swept from a session
    }
    return user + "@" + user + ".csv";
}

void start_follower() {
    const char *const command[] = {"/usr/bin/tail", "-n0", "-F", http_log_path, nullptr};
    tail_process = process_create(command, parse_koral_line, koral_write_lines);
    if (!tail_process) {
        log_error("KORAL CGI monitoring: Failed to start tailing '%s'", http_log_path);
    }
}

void end_follower() {
    process_stop(tail_process.get());
    process_wait(tail_process.get());
    process_free(tail_process);
}

} // namespace

void set_http_edge_storage(const std::string &session_directory) {
    const std::lock_guard lock(mutex);
    http_log_storage_path = session_directory;
}

void koral_cgi_monitor_setup() {
    if (tail_process) {
        log_error("KORAL CGI monitoring: The HTTP log is already being tailed.");
        return;
    }
    {
        const std::lock_guard lock(mutex);
        koral_cgi_table.clear();
        hash_size = 0;
        koral_investigated.clear();
        is_failing = false;
        time_started = std::time(nullptr);
    }
    koral_cgi_monitor_mend();
    (void)vdrl_http_log_late_lines(); // from before the session
    start_follower();
}

void koral_cgi_monitor_release() {
    koral_take_late_lines();
    end_follower();
    const std::lock_guard lock(mutex);
    http_log_storage_path.reset();
    hash_size = 0;
    log_info("KORAL CGI monitoring: Inotify watch removed and closed");
}

void koral_cgi_monitor_mend() {
    const std::lock_guard lock(mutex);
    if (http_log_storage_path && koral_investigated.empty() &&
        is_directory(session_file("monitoring_koral").c_str())) {
        install_filters();
    }
}

int koral_read_user_defined_filters() {
    const std::lock_guard lock(mutex);
    return read_filters();
}

void parse_koral_line(const char *line) {
    const std::lock_guard lock(mutex);
    if (http_log_storage_path) {
        keep_line(line);
    }
    count_call(line);
}

void koral_write_lines() {
    const std::lock_guard lock(mutex);
    write_pending();
}

void koral_take_late_lines() {
    const std::string text = vdrl_http_log_late_lines();
    if (!tail_process) {
        return;
    }
    std::size_t start = 0;
    for (std::size_t end = 0; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        parse_koral_line(text.substr(start, end - start).c_str());
    }
    koral_write_lines();
    if (tail_process->at_end) {
        log_warning("What follows the HTTP log has ended and is started again.");
        end_follower();
        start_follower();
    }
}

std::uint64_t koral_calls_seen() {
    return calls_seen;
}

void koral_cgi_store() {
    const std::lock_guard lock(mutex);
    if (!http_log_storage_path) {
        return;
    }
    // All calls of a user go to one file, in one write.
    std::map<std::string, std::vector<koral_cgi_monitor_item_t *>> files;
    for (const auto &[url, item] : koral_cgi_table) {
        files[csv_name(item->url)].push_back(item.get());
    }
    const std::string stamp = row_time();
    for (const auto &[name, items] : files) {
        std::string rows;
        for (const auto *item : items) {
            rows += format_text("%s,%" PRIu32 ",%" PRIu32 "\r\n", stamp.c_str(), item->store_count,
                                item->process_time_avg);
        }
        if (append_rows(session_file("monitoring_koral/others/" + name), csv_header, rows)) {
            for (auto *item : items) {
                item->store_count = 0;
            }
        }
    }
}

std::string koral_output_state_of_the_table() {
    const std::string bar(17, '=');
    std::string text =
        bar + " KORAL Monitoring " + bar +
        "\r\nProduct model: " + parameter_get("root.Brand.ProdShortName").value_or("") +
        "\r\nFirmware version: " + parameter_get("root.Properties.Firmware.Version").value_or("") +
        "\r\n";
    const std::lock_guard lock(mutex);
    text += "Time period: " + time_text(time_started) + " -- " + time_text(std::time(nullptr)) +
            "\r\n" + bar + " Top most frequently called " + bar + "\r\n";
    std::vector<const koral_cgi_monitor_item_t *> items;
    for (const auto &[url, item] : koral_cgi_table) {
        items.push_back(item.get());
    }
    std::vector<const koral_cgi_monitor_item_t *> top = items;
    std::sort(top.begin(), top.end(),
              [](const auto *a, const auto *b) { return a->called_count > b->called_count; });
    top.resize(std::min(top.size(), report_top));
    for (std::size_t rank = 0; rank < top.size(); ++rank) {
        text += std::to_string(rank + 1) + ". " + item_text(*top[rank]);
    }
    text += "\r\n" + bar + " Total statistics " + bar + "\r\n\r\n";
    for (const auto *item : items) {
        text += item_text(*item);
    }
    return text;
}

void koral_output_to_file() {
    std::string path;
    {
        const std::lock_guard lock(mutex);
        if (!http_log_storage_path || koral_cgi_table.empty()) {
            return;
        }
        path = session_file("monitoring_koral/koral_status.txt");
    }
    if (file_replace(path.c_str(), koral_output_state_of_the_table())) {
        (void)::chmod(path.c_str(), 0444);
    }
}
