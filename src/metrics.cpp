#include "metrics.h"

#include "app_state.h"
#include "command_limits.h"
#include "environment.h"
#include "filehandler.h"
#include "handle.h"
#include "http.h"
#include "koral_cgi_monitoring.h"
#include "log.h"
#include "loop.h"
#include "main_timer.h"
#include "open_metrics.h"
#include "process_table.h"
#include "session_globals.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "syslog_triggers.h"
#include "vdrl_capture.h"
#include "vdrl_device_test.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <optional>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

namespace {

using steady_clock = std::chrono::steady_clock;
using type = metric_type;

// Collections run every other minute. A stale value is left out: none is better than yesterday's.
constexpr auto age_max = std::chrono::minutes(10);

std::optional<double> recent_age(steady_clock::time_point time) {
    const auto age = steady_clock::now() - time;
    return time == steady_clock::time_point() || age > age_max
               ? std::nullopt
               : std::optional(std::chrono::duration<double>(age).count());
}

std::string proc_text(const char *path) {
    std::string text;
    const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    std::array<char, 16384> piece;
    ssize_t size = 0;
    while (file && (size = ::read(file.get(), piece.data(), piece.size())) > 0) {
        text.append(piece.data(), static_cast<std::size_t>(size));
    }
    return text;
}

std::string_view take_word(std::string_view &text) {
    const auto start = std::min(text.find_first_not_of(' '), text.size());
    text.remove_prefix(start);
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

std::string_view take_line(std::string_view &text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

// --- The kernel's figures, under the names that node_exporter has made common

void write_load(open_metrics_text &out) {
    const std::string text = proc_text("/proc/loadavg"); // "0.52 0.58 0.59 1/211 4711"
    std::string_view words = text;
    constexpr struct {
        const char *name;
        const char *help;
    } averages[] = {
        {"node_load1", "1m load average."},
        {"node_load5", "5m load average."},
        {"node_load15", "15m load average."},
    };
    for (const auto &[name, help] : averages) {
        out.begin(type::gauge, name, help);
        out.add_printed({}, take_word(words));
    }
}

// "Active(anon)" -> "node_memory_Active_anon_bytes"
void write_memory(open_metrics_text &out) {
    const std::string text = proc_text("/proc/meminfo");
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto field = parse_meminfo_line(take_line(rest));
        const auto value = field ? plain_decimal(field->value) : std::nullopt;
        if (!value) {
            continue;
        }
        std::string name(field->name);
        std::replace(name.begin(), name.end(), '(', '_');
        std::erase(name, ')');
        name.append(field->is_in_kib ? "_bytes" : "");
        out.begin(type::gauge, "node_memory_" + name, "Memory information field " + name + ".",
                  field->is_in_kib ? "bytes" : "");
        out.add({}, std::uint64_t{*value} * (field->is_in_kib ? 1024 : 1));
    }
}

void write_page_faults(open_metrics_text &out) {
    const std::string text = proc_text("/proc/vmstat");
    for (const std::string counter : {"pgfault", "pgmajfault"}) {
        out.begin(type::unknown, "node_vmstat_" + counter,
                  "/proc/vmstat information field " + counter + ".");
        out.add_printed({}, find_vmstat_counter(text, counter));
    }
}

void write_free_blocks(open_metrics_text &out) {
    const buddy_table table = parse_buddyinfo(proc_text("/proc/buddyinfo"));
    out.begin(type::gauge, "node_buddyinfo_blocks", "Count of free blocks according to size.");
    for (std::size_t zone = 0; zone < table.zones.size(); ++zone) {
        for (std::size_t order = 0; table.has_zone[zone] && order <= table.highest_order; ++order) {
            out.add({{"node", "0"}, {"zone", zone_names[zone]}, {"size", std::to_string(order)}},
                    static_cast<std::uint64_t>(table.zones[zone][order]));
        }
    }
}

// "eth0.csv/receive_bytes" belongs to node_network_receive_bytes_total of eth0.
void write_network(open_metrics_text &out) {
    constexpr std::string_view file_end = ".csv/";
    net_dev_values values;
    if (parse_proc_net_dev(proc_text("/proc/net/dev"), values)) {
        return;
    }
    using sample = std::pair<std::string_view, std::string_view>; // device, value
    std::map<std::string_view, std::vector<sample>> families;
    for (const auto &[key, value] : values) {
        const auto at = key.rfind(file_end);
        families[std::string_view(key).substr(at + file_end.size())].emplace_back(
            std::string_view(key).substr(0, at), value);
    }
    for (const auto &[field, samples] : families) {
        out.begin(type::counter, "node_network_" + std::string(field),
                  "Network device statistic " + std::string(field) + ".",
                  field.ends_with("_bytes") ? "bytes" : "");
        for (const auto &[device, value] : samples) {
            out.add_printed({{"device", device}}, value);
        }
    }
}

// "cpu0 4705 150 1120 1644367 2304 0 33 0 0 0": hundredths of a second
void write_processor(open_metrics_text &out, std::string_view cpu_lines) {
    constexpr std::string_view modes[] = {"user",   "nice", "system",  "idle",
                                          "iowait", "irq",  "softirq", "steal"};
    static const auto ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
    out.begin(type::counter, "node_cpu_seconds", "Seconds the CPUs spent in each mode.", "seconds");
    while (!cpu_lines.empty()) {
        std::string_view line = take_line(cpu_lines);
        const std::string_view cpu = take_word(line).substr(3);
        for (const std::string_view mode : modes) {
            if (const auto value = plain_decimal(take_word(line)); value && !cpu.empty()) {
                out.add({{"cpu", cpu}, {"mode", mode}}, static_cast<double>(*value) / ticks);
            }
        }
    }
}

void write_kernel(open_metrics_text &out) {
    const std::string text = proc_text("/proc/stat");
    const auto cpu_end = text.find("\nintr ");
    write_processor(out, std::string_view(text).substr(0, cpu_end));
    constexpr struct {
        std::string_view word;
        metric_type kind;
        const char *name;
        const char *help;
        const char *unit;
    } figures[] = {
        {"intr", type::counter, "node_intr", "Total number of interrupts serviced.", ""},
        {"ctxt", type::counter, "node_context_switches", "Total number of context switches.", ""},
        {"btime", type::gauge, "node_boot_time_seconds", "Node boot time, in unixtime.", "seconds"},
        {"processes", type::counter, "node_forks", "Total number of forks.", ""},
        {"procs_running", type::gauge, "node_procs_running",
         "Number of processes in runnable state.", ""},
        {"procs_blocked", type::gauge, "node_procs_blocked",
         "Number of processes blocked waiting for I/O to complete.", ""},
    };
    std::string_view rest = text;
    while (!rest.empty()) {
        std::string_view line = take_line(rest);
        const std::string_view word = take_word(line);
        for (const auto &figure : figures) {
            if (word == figure.word) {
                out.begin(figure.kind, figure.name, figure.help, figure.unit);
                out.add_printed({}, take_word(line));
            }
        }
    }
}

void write_system(open_metrics_text &out) {
    out.gauge(
        "node_time_seconds", "System time in seconds since epoch (1970).",
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(),
        "seconds");
    utsname name{};
    if (::uname(&name) == 0) {
        out.begin(type::info, "node_uname", "Labeled system information as provided by uname.");
        out.add({{"sysname", name.sysname},
                 {"release", name.release},
                 {"version", name.version},
                 {"machine", name.machine},
                 {"nodename", name.nodename}},
                std::uint64_t{1});
    }
}

// --- The daemon's own, under the names that each exporter has for itself

std::uint64_t open_descriptors() {
    std::uint64_t count = 0;
    const unique_folder folder(::opendir("/proc/self/fd"));
    while (folder && ::readdir(folder.get()) != nullptr) {
        ++count;
    }
    return count < 3 ? 0 : count - 3; // without ".", ".." and the folder's own descriptor
}

void write_self(open_metrics_text &out) {
    rusage used{};
    (void)::getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    out.begin(type::counter, "process_cpu_seconds", "Processor time of the daemon.", "seconds");
    out.add({}, seconds(used.ru_utime) + seconds(used.ru_stime));

    const std::string text = proc_text("/proc/self/statm"); // pages: "2081 1893 1650 ..."
    std::string_view words = text;
    const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    const auto size = plain_decimal(take_word(words)).value_or(0) * page;
    const auto resident = plain_decimal(take_word(words)).value_or(0) * page;
    out.begin(type::gauge, "process_virtual_memory_bytes", "Virtual memory of the daemon.",
              "bytes");
    out.add({}, std::uint64_t{size});
    out.begin(type::gauge, "process_resident_memory_bytes", "Resident memory of the daemon.",
              "bytes");
    out.add({}, std::uint64_t{resident});
    out.gauge("process_open_fds", "Open descriptors of the daemon.",
              static_cast<double>(open_descriptors()));
    out.gauge("process_start_time_seconds", "When the daemon was started, since 1970.",
              static_cast<double>(start_time), "seconds");
    out.gauge("vandrel_loop_delay_seconds",
              "Longest time since the last scrape in which the daemon did nothing else.",
              std::chrono::duration<double>(loop_take_longest_stillness()).count(), "seconds");
    out.counter("vandrel_commands_ended", "Commands that were ended at their time limit.",
                commands_ended_at_limit());
    out.counter("vandrel_log_messages_lost",
                "Messages of the daemon that the log service has not taken.", log_lost_messages());
}

// --- The device

// Read once: they change with the firmware only, and so with a restart.
const std::string &device_parameter(const char *name) {
    static std::map<std::string, std::string> values;
    std::string &value = values[name];
    if (value.empty()) {
        value = parameter_get(name).value_or("");
    }
    return value;
}

void write_identity(open_metrics_text &out) {
    out.begin(type::info, "vandrel_build", "The version of the package.");
    out.add({{"version", VANDREL_VERSION}}, std::uint64_t{1});
    out.begin(type::info, "vandrel_device", "The device; what it does not tell is empty.");
    out.add({{"serial", serial_number.value_or("")},
             {"model", device_parameter("root.Brand.ProdShortName")},
             {"firmware", device_parameter("root.Properties.Firmware.Version")},
             {"architecture", device_parameter("root.Properties.System.Architecture")}},
            std::uint64_t{1});
}

void write_age(open_metrics_text &out, const char *collector, const std::optional<double> &age) {
    if (age) {
        out.add({{"collector", collector}}, *age);
    }
}

void write_printed(open_metrics_text &out, const char *label,
                   const std::vector<device_condition::value> &values) {
    for (const auto &[name, printed] : values) {
        out.add({{label, name}, {"status", printed}}, std::uint64_t{1});
    }
}

void write_condition(open_metrics_text &out) {
    const device_condition &condition = last_condition();
    const video_streams &video = last_video_streams();
    const auto condition_age = recent_age(condition.time);
    const auto streams_age = recent_age(video.time);
    out.begin(type::gauge, "vandrel_collection_age_seconds",
              "How long ago what is told of a subject was collected.", "seconds");
    write_age(out, "condition", condition_age);
    write_age(out, "streams", streams_age);
    write_age(out, "storage", recent_age(last_session_storage().time));
    if (condition_age) {
        out.begin(type::gauge, "vandrel_temperature_celsius", "Temperature at a sensor.",
                  "celsius");
        for (const auto &[name, printed] : condition.temperatures) {
            out.add_printed({{"sensor", name}}, printed);
        }
        out.begin(type::gauge, "vandrel_heater_status", "1 for what the heater does.");
        write_printed(out, "heater", condition.heaters);
        out.begin(type::gauge, "vandrel_fan_status", "1 for what the fan does.");
        write_printed(out, "fan", condition.fans);
    }
    if (streams_age) {
        std::map<std::string_view, std::uint64_t> streams;
        for (const std::string &stream : video.streams) {
            ++streams[stream];
        }
        out.begin(type::gauge, "vandrel_streams", "Video streams of a kind that are being sent.");
        for (const auto &[stream, count] : streams) {
            out.add({{"stream", stream}}, count);
        }
    }
    if (const std::time_t image = vdrl_capture_last_image(); image != 0) {
        out.gauge("vandrel_last_image_timestamp_seconds", "When the last still image was taken.",
                  static_cast<double>(image), "seconds");
    }
}

void write_processes(open_metrics_text &out) {
    const auto &table = process_table();
    const auto write = [&](const char *name, const char *help, const char *unit,
                           const auto &value_of) {
        out.begin(type::gauge, name, help, unit);
        for (const auto &[process, use] : table) {
            out.add({{"process", process}}, static_cast<std::uint64_t>(value_of(use)));
        }
    };
    write("vandrel_processes", "Processes of a name.", "",
          [](const process_use &use) { return use.processes; });
    write("vandrel_process_threads", "Threads of the processes of a name.", "",
          [](const process_use &use) { return use.threads; });
    write("vandrel_process_resident_memory_bytes",
          "Resident memory of the processes of a name, shared parts counted in each.", "bytes",
          [](const process_use &use) { return use.resident_bytes; });
}

// --- The session and its storage

// "20230531_08_27_40" is local time.
std::optional<double> time_of_stamp(const std::string &stamp) {
    struct tm local {};
    if (std::sscanf(stamp.c_str(), "%4d%2d%2d_%2d_%2d_%2d", &local.tm_year, &local.tm_mon,
                    &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec) != 6) {
        return std::nullopt;
    }
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = -1;
    const std::time_t time = std::mktime(&local);
    return time == -1 ? std::nullopt : std::optional(static_cast<double>(time));
}

std::string session_storage_name() {
    return storage_id.value_or("localdata");
}

void write_session(open_metrics_text &out) {
    constexpr double seconds_a_minute = 60;
    const bool runs = monitory_active && current_activity_folder;
    out.gauge("vandrel_session_running", "1 while a monitoring session runs.", runs ? 1 : 0);
    if (runs) {
        out.begin(type::info, "vandrel_session", "The running monitoring session.");
        out.add({{"folder", *current_activity_folder}, {"storage", session_storage_name()}},
                std::uint64_t{1});
        if (const auto start = time_of_stamp(*current_activity_folder)) {
            out.gauge("vandrel_session_start_time_seconds", "When the session was started.", *start,
                      "seconds");
        }
        out.gauge("vandrel_session_duration_seconds", "How long the session has recorded.",
                  static_cast<double>(monitor_active_minutes_count) * seconds_a_minute, "seconds");
        if (collected_data_points) {
            out.gauge("vandrel_session_data_points", "Collections of the session.",
                      static_cast<double>(*collected_data_points));
        }
        out.gauge("vandrel_session_lost_seconds",
                  "How long the session's storage can't be written to by now.",
                  static_cast<double>(connection_lost_count) * seconds_a_minute, "seconds");
    }
    constexpr const char *since = " since the daemon's start.";
    const auto count = [&](const char *name, const std::string &help, std::uint64_t value) {
        out.counter(name, help + since, value);
    };
    count("vandrel_cores", "Cores of crashed programs in sessions", occurrences.cores);
    count("vandrel_crash_reports", "Crash reports begun", occurrences.crash_reports);
    count("vandrel_kernel_dumps", "Kernel dumps copied into sessions", occurrences.kernel_dumps);
    count("vandrel_full_storages", "Sessions that a full storage ended", occurrences.full_storages);
    count("vandrel_http_calls", "Calls of the device's HTTP API seen in sessions",
          koral_calls_seen());
}

// The session's storage as of the last tick, others as of the last storage_states.
void write_storages(open_metrics_text &out) {
    std::map<std::string, storage_state> storages;
    for (storage_state &state : recent_storage_states(age_max)) {
        storages[state.name] = std::move(state);
    }
    const session_storage &seen = last_session_storage();
    if (monitory_active && recent_age(seen.time)) {
        storage_state &state = storages[session_storage_name()];
        state.usable = seen.usable;
        state.percent_used = seen.percent_used.value_or(-1);
    }
    out.begin(type::gauge, "vandrel_storage_usable", "1 while the storage is there and healthy.");
    for (const auto &[name, state] : storages) {
        out.add({{"storage", name}}, std::uint64_t{state.usable ? 1U : 0U});
    }
    out.begin(type::gauge, "vandrel_storage_used_ratio", "Used part of the storage.", "ratio");
    for (const auto &[name, state] : storages) {
        if (state.percent_used >= 0) {
            out.add({{"storage", name}}, state.percent_used / 100.0);
        }
    }
    out.begin(type::gauge, "vandrel_storage_size_bytes", "Size of the storage.", "bytes");
    for (const auto &[name, state] : storages) {
        if (state.size_kb > 0) {
            out.add({{"storage", name}}, static_cast<std::uint64_t>(state.size_kb) * 1024);
        }
    }
}

// --- What the user has set up

void write_triggers(open_metrics_text &out) {
    const std::vector<trigger_counts> triggers = syslog_trigger_counts();
    out.begin(type::counter, "vandrel_trigger_matches", "Lines of the log that a trigger matched.");
    for (const trigger_counts &trigger : triggers) {
        out.add({{"trigger", trigger.name}}, trigger.matched);
    }
    out.begin(type::counter, "vandrel_trigger_events", "Events that a trigger sent.");
    for (const trigger_counts &trigger : triggers) {
        out.add({{"trigger", trigger.name}}, trigger.sent);
    }
}

void write_device_tests(open_metrics_text &out) {
    const auto write = [&](metric_type kind, const char *name, const char *help,
                           const auto &value_of) {
        out.begin(kind, name, help);
        for (const nc_rules_t *rule = nc_rules.get(); rule != nullptr; rule = rule->next.get()) {
            const std::string port =
                rule->port == nc_port_icmp ? "icmp" : std::to_string(rule->port);
            out.add({{"host", rule->nc_address}, {"port", port}, {"name", rule->nc_name}},
                    static_cast<std::uint64_t>(value_of(*rule)));
        }
    };
    write(type::counter, "vandrel_device_test_checks", "Checks of a host.",
          [](const nc_rules_t &rule) { return rule.checks_total; });
    write(type::counter, "vandrel_device_test_failures", "Checks of a host that failed.",
          [](const nc_rules_t &rule) { return rule.fails_total; });
    write(type::gauge, "vandrel_device_test_consecutive_failures", "Failed checks in a row.",
          [](const nc_rules_t &rule) { return rule.fail_count; });
    out.begin(type::gauge, "vandrel_device_test_connected",
              "1 when the last check of a host found it; none before the first.");
    for (const nc_rules_t *rule = nc_rules.get(); rule != nullptr; rule = rule->next.get()) {
        if (rule->checks_total > 0) {
            const std::string port =
                rule->port == nc_port_icmp ? "icmp" : std::to_string(rule->port);
            out.add({{"host", rule->nc_address}, {"port", port}, {"name", rule->nc_name}},
                    std::uint64_t{rule->connected ? 1U : 0U});
        }
    }
}

} // namespace

std::string metrics_text() {
    open_metrics_text out;
    write_identity(out);
    write_session(out);
    write_storages(out);
    write_condition(out);
    write_triggers(out);
    write_device_tests(out);
    write_self(out);
    write_processes(out);
    write_load(out);
    write_memory(out);
    write_page_faults(out);
    write_free_blocks(out);
    write_network(out);
    write_kernel(out);
    write_system(out);
    errno = 0;
    return out.finish();
}

void action_metrics(GDataOutputStream *stream, GHashTable *) {
    http_reply(stream, http_status::ok,
               "application/openmetrics-text; version=1.0.0; charset=utf-8", metrics_text());
}
