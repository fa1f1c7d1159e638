#include "filehandler.h"

#include "csv.h"
#include "dateutil.h"
#include "fileutil.h"
#include "log.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr std::size_t file_path_size = 256;
constexpr std::size_t source_line_max = 255;

std::string session_file(const std::string &session, const char *folder, const std::string &file) {
    return format_bounded(file_path_size, "%s/%s/%s/%s", session.c_str(), "system_monitoring",
                          folder, file.c_str());
}

bool is_digit(char ch) {
    return ch >= '0' && ch <= '9';
}

std::string_view next_word(std::string_view &text) {
    const auto start = text.find_first_not_of(' ');
    text.remove_prefix(start == std::string_view::npos ? text.size() : start);
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

// The next line without its newline; false when no terminated line is left.
bool next_whole_line(std::string_view &text, std::string_view &line) {
    const auto end = text.find('\n');
    if (end == std::string_view::npos) {
        return false;
    }
    line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return true;
}

// --- Network

constexpr std::size_t net_dev_read_max = 1023;
constexpr std::size_t net_dev_fields_max = 10; // of each kind
constexpr std::size_t net_dev_interfaces_max = 10;
constexpr std::size_t net_dev_key_max = 99;

// The last sample of eth0; a time of 0 is none yet. Survives sessions.
struct bandwidth_sample {
    std::time_t time = 0;
    std::int64_t received = 0;
    std::int64_t sent = 0;
};
bandwidth_sample last_sample;

// "Inter-|   Receive                                                |  Transmit"
// " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs ..."
struct net_dev_fields {
    std::vector<std::string> receive;
    std::vector<std::string> transmit;
};

void add_field(std::vector<std::string> &fields, std::string_view name) {
    if (fields.size() < net_dev_fields_max && !name.empty()) {
        fields.emplace_back(name);
    }
}

net_dev_fields parse_net_dev_header(std::string_view names) {
    net_dev_fields fields;
    bool receiving = true;
    for (std::string_view word = next_word(names); !word.empty(); word = next_word(names)) {
        const auto bar = receiving ? word.find('|') : std::string_view::npos;
        if (bar != std::string_view::npos) {
            add_field(fields.receive, word.substr(0, bar));
            add_field(fields.transmit, word.substr(bar + 1));
            receiving = false;
        } else {
            add_field(receiving ? fields.receive : fields.transmit, word);
        }
    }
    return fields;
}

// "  eth0: 1296543    8214    0    0    0     0          0         0   934572    7312    0 ..."
void take_interface(std::string_view name, std::string_view numbers, const net_dev_fields &fields,
                    net_dev_values &values) {
    std::size_t index = 0;
    for (std::string_view word = next_word(numbers); !word.empty();
         word = next_word(numbers), ++index) {
        const bool receiving = index < fields.receive.size();
        const auto &names = receiving ? fields.receive : fields.transmit;
        const std::size_t field = receiving ? index : index - fields.receive.size();
        if (field >= names.size()) {
            return;
        }
        std::string key =
            std::string(name) + ".csv/" + (receiving ? "receive_" : "transmit_") + names[field];
        if (key.size() <= net_dev_key_max) {
            values[std::move(key)] = word;
        }
    }
}

std::optional<std::int64_t> counter(const net_dev_values &values, const char *key) {
    const auto found = values.find(key);
    return found == values.end() ? std::nullopt
                                 : std::optional<std::int64_t>(decimal_prefix(found->second));
}

// "12.3 Mbit/s"; nothing without an earlier sample or after a counter reset.
std::optional<std::string> bandwidth(const bandwidth_sample &now, const bandwidth_sample &before) {
    if (before.time == 0) {
        return std::nullopt;
    }
    const std::int64_t delta = (now.received - before.received) + (now.sent - before.sent);
    const auto seconds = static_cast<std::int32_t>(now.time - before.time);
    const std::int64_t bytes_a_second = seconds == 0 ? 0 : delta / seconds;
    const std::int64_t tenths = bytes_a_second / 12500; // of 1 Mbit/s (125,000 bytes/s), truncated
    // Counters that fell began anew.
    if (delta < 0 || tenths < 0) {
        return std::nullopt;
    }
    return format_text("%.1f Mbit/s", static_cast<double>(tenths) / 10.0);
}

void log_net_dev_error(const net_dev_error &error) {
    errno = 0;
    if (error.near.empty()) {
        log_error("%s FAILED %d\n", "parse_proc_net_dev", error.step);
    } else {
        log_error("FAILED %d\nAttempted to find word stating at: [%s]", error.step,
                  error.near.c_str());
    }
    log_error("Error on parsing: %d", error.step);
}

// --- Memory

constexpr std::size_t uptime_line_max = 99;
constexpr std::size_t buddy_line_max = 299;
constexpr std::size_t buddy_digits_max = 10;
constexpr std::size_t vmstat_line_max = 49;
constexpr std::size_t vmstat_digits_max = 20;

// The index of a line's zone in zone_names, and the start of its numbers.
struct zone_place {
    std::size_t zone;
    std::size_t numbers;
};

std::optional<zone_place> find_zone(std::string_view line) {
    if (const auto at = line.find("DMA32"); at != std::string_view::npos) {
        return zone_place{1, std::min(at + 6, line.size())};
    }
    for (const std::size_t zone : {0U, 2U, 3U}) {
        if (const auto at = line.find(zone_names[zone]); at != std::string_view::npos) {
            return zone_place{zone, at + 1};
        }
    }
    return std::nullopt;
}

void take_block_counts(std::string_view numbers, std::array<long long, buddy_table::orders> &zone,
                       buddy_table &table) {
    std::size_t order = 0;
    std::string digits;
    const auto end_number = [&] {
        if (!digits.empty() && order < buddy_table::orders) {
            zone[order] = decimal_prefix(digits);
            table.totals[order] += zone[order];
            table.highest_order = std::max(table.highest_order, order);
        }
        order += digits.empty() ? 0 : 1;
        digits.clear();
    };
    for (const char ch : numbers) {
        if (is_digit(ch) && digits.size() < buddy_digits_max) {
            digits.push_back(ch);
        } else {
            end_number();
        }
    }
    end_number();
}

constexpr std::string_view slab_header =
    "Date, Time, Name, Active objects, Number of objects, Object size, Objects per slab, Pages per "
    "slab, Tunables: Limit, Batch count, Shared factor, Slab data : Active slabs, Number of slabs, "
    "Shared available\r\n";

// The caches' names for the page, replaced whole: readers always find a whole list.
void store_slab_names(const std::string &session, const std::string &names) {
    const std::string temporary = session_file(session, "monitoring_slabinfo", ".slab_names_tmp");
    unique_file file = file_open(temporary.c_str(), "w");
    if (!file) {
        log_warning("Could not open %s", temporary.c_str());
        errno = 0;
        return;
    }
    std::fputs(names.c_str(), file.get());
    const bool whole = std::fflush(file.get()) == 0 && ::fsync(::fileno(file.get())) == 0;
    file.reset();
    if (!whole ||
        !file_rename(temporary.c_str(),
                     session_file(session, "monitoring_slabinfo", ".slab_names").c_str())) {
        file_remove(temporary.c_str());
    }
}

} // namespace

void store_load_avg_info_no_retention(const std::string &session) {
    std::string line;
    {
        command_pipe uptime("uptime");
        uptime.next_line(uptime_line_max, line);
    }
    str_terminate_at(line, '\n');
    if (const auto averages = parse_load_average(line)) {
        append_rows(session_file(session, "monitoring_load", "load.csv"),
                    "Date,Time,Load average (1 min),Load average (5 min),Load average (15 min)\r\n",
                    row_time() + "," + (*averages)[0] + "," + (*averages)[1] + "," +
                        (*averages)[2] + "\r\n");
    }
}

// " 04:51:05 up 1:10,  0 users,  load average: 0.52, 0.58, 0.59"
std::optional<std::array<std::string, 3>> parse_load_average(std::string_view uptime_line) {
    constexpr std::string_view mark = "average:";
    const auto at = uptime_line.find(mark);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view rest = uptime_line.substr(at + mark.size());
    std::array<std::string, 3> averages;
    for (std::size_t i = 0; i < averages.size(); ++i) {
        if (rest.starts_with(' ')) {
            rest.remove_prefix(1);
        }
        const auto end = i + 1 < averages.size() ? rest.find(',') : rest.size();
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        averages[i] = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return averages;
}

std::string vmstat_get_val(const char *counter_name) {
    const std::string command = format_bounded(100, "grep \"%s\" /proc/vmstat", counter_name);
    std::string line;
    {
        command_pipe pipe(command.c_str());
        if (!pipe.next_line(vmstat_line_max, line)) {
            errno = 0;
            log_error("fgets returned null reading output of %s", command.c_str());
            return "";
        }
    }
    return std::string(parse_vmstat_line(line));
}

std::string_view parse_vmstat_line(std::string_view line) {
    const auto blank = line.find(' ');
    if (blank == std::string_view::npos) {
        return {};
    }
    const auto *const begin = line.begin() + blank + 1;
    const auto *const end = std::find_if_not(begin, line.end(), is_digit);
    return std::string_view(begin, end).substr(0, vmstat_digits_max);
}

void store_page_faults(const std::string &session) {
    const std::string minor_faults = vmstat_get_val("pgfault");
    const std::string major_faults = vmstat_get_val("pgmajfault");
    append_rows(session_file(session, "monitoring_kernel", "pagefaults.csv"),
                "DATE,TIME,MINOR_FAULTS,MAJOR_FAULTS\n",
                row_time() + "," + minor_faults + "," + major_faults + "\n");
}

// "Node 0, zone   Normal    216     55    189    101     84     38     37     27      5      3 630"
buddy_table parse_buddyinfo(std::string_view text) {
    buddy_table table;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        if (const auto place = find_zone(line.substr(0, buddy_line_max))) {
            table.has_zone[place->zone] = true;
            take_block_counts(line.substr(place->numbers), table.zones[place->zone], table);
        }
    }
    return table;
}

void store_buddyinfo(const std::string &session) {
    const unique_file source = file_open("/proc/buddyinfo", "r");
    if (!source) {
        errno = 0;
        return;
    }
    std::string text;
    std::string line;
    while (read_line(source.get(), buddy_line_max, line)) {
        text += line;
    }
    const buddy_table table = parse_buddyinfo(text);
    std::string header = "ZONE,DATE,TIME";
    for (std::size_t order = 0; order <= table.highest_order; ++order) {
        header += format_text(",%d kB", 4 << order);
    }
    std::string rows;
    const std::string now = row_time();
    const auto add_row = [&](const char *zone, const auto &counts) {
        rows.append(zone).append(",").append(now);
        for (std::size_t order = 0; order <= table.highest_order; ++order) {
            rows += "," + std::to_string(counts[order]);
        }
        rows += "\n";
    };
    for (std::size_t zone = 0; zone < table.zones.size(); ++zone) {
        add_row(zone_names[zone], table.zones[zone]);
    }
    add_row("Total", table.totals);
    append_rows(session_file(session, "monitoring_kernel", "buddyinfo.csv"), header + "\n", rows);
}

std::optional<meminfo_line> parse_meminfo_line(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    const auto digits =
        std::find_if(line.begin() + static_cast<std::ptrdiff_t>(colon), line.end(), is_digit);
    const auto end = std::find(digits, line.end(), ' ');
    return meminfo_line{line.substr(0, colon), std::string_view(digits, end), line.ends_with("kB")};
}

std::string_view find_vmstat_counter(std::string_view text, std::string_view counter) {
    std::string_view line;
    while (next_whole_line(text, line)) {
        if (line.starts_with(counter) && line.size() > counter.size() &&
            line[counter.size()] == ' ') {
            return line.substr(counter.size() + 1);
        }
    }
    return {};
}

void store_proc_meminfo(const std::string &session) {
    const unique_file source = file_open_or_warn("/proc/meminfo", "r");
    std::string line;
    while (source && read_line(source.get(), source_line_max, line)) {
        str_terminate_at(line, '\n');
        const auto field = parse_meminfo_line(line);
        if (!field) {
            log_warning("Skipping %s", line.c_str());
            continue;
        }
        const std::string name = file_name_of(field->name);
        append_rows(session_file(session, "monitoring_meminfo", name + ".csv"),
                    "Date,Time,Memory " + name + " (kB)\r\n",
                    row_time().append(",").append(field->value) + "\r\n");
    }
}

std::optional<slab_line> parse_slab_line(std::string_view line) {
    const auto blank = line.find(' ');
    if (blank == std::string_view::npos || line.starts_with('#')) {
        return std::nullopt;
    }
    slab_line slab{line.substr(0, blank), ""};
    line.remove_prefix(blank);
    for (std::string_view word = next_word(line); !word.empty(); word = next_word(line)) {
        if (is_digit(word[0])) {
            slab.numbers.append(",").append(word);
        }
    }
    return slab;
}

void store_slab_info(const std::string &session) {
    const std::string directory = session + "/system_monitoring/monitoring_slabinfo";
    (void)make_folder(directory.c_str(), 0666);
    errno = 0;
    std::string names = "[{\"Filler\":\"This file is used by the VELA\"}";
    bool version_line = true;
    command_read_lines("cat /proc/slabinfo", source_line_max, [&](const std::string &text) {
        std::string line = text;
        str_terminate_at(line, '\n');
        if (const auto slab = version_line ? std::nullopt : parse_slab_line(line)) {
            const std::string name(slab->name);
            names += ",{\"name\":\"" + name + "\"}";
            append_rows(session_file(session, "monitoring_slabinfo", file_name_of(name) + ".csv"),
                        slab_header, row_time() + "," + name + slab->numbers + "\r\n");
        }
        version_line = false;
    });
    store_slab_names(session, names + "]");
}

std::optional<net_dev_error> parse_proc_net_dev(std::string_view text, net_dev_values &values) {
    std::string_view line;
    if (!next_whole_line(text, line) || text.empty()) {
        return net_dev_error{1, ""};
    }
    const auto bar = text.substr(0, text.find('\n')).find('|');
    if (bar == std::string_view::npos) {
        return net_dev_error{2, ""};
    }
    if (!next_whole_line(text, line)) {
        return net_dev_error{3, std::string(text.substr(text.find_last_of(" |") + 1))};
    }
    const net_dev_fields fields = parse_net_dev_header(line.substr(bar + 1));
    net_dev_values parsed;
    for (std::size_t i = 0; i < net_dev_interfaces_max && next_whole_line(text, line); ++i) {
        const auto colon = line.find(':');
        if (colon == std::string_view::npos) {
            return net_dev_error{4, ""};
        }
        const auto start = std::min(line.find_first_not_of(' '), colon);
        take_interface(line.substr(start, colon - start), line.substr(colon + 1), fields, parsed);
    }
    values = std::move(parsed);
    return std::nullopt;
}

std::vector<interface_row> interface_rows(const net_dev_values &values) {
    std::vector<interface_row> rows;
    bool transmitting = false;
    std::uint32_t failed[2] = {0, 0}; // receive, transmit
    const auto finish = [&] {
        if (!rows.empty()) {
            rows.back().header +=
                ", Failed packages total (receive), Failed packages total (transmit)\n";
            rows.back().row += format_text(",%u,%u\n", failed[0], failed[1]);
        }
    };
    for (const auto &entry : values) {
        const std::string &key = entry.first;
        const std::string &value = entry.second;
        const std::string file_name = key.substr(0, key.find('/'));
        const auto has = [&key](const char *word) { return key.find(word) != std::string::npos; };
        if (rows.empty() || rows.back().file_name != file_name) {
            finish();
            rows.push_back({file_name, "Date, Time, Receive: ", ""});
            transmitting = false;
            failed[0] = failed[1] = 0;
        } else if (has("transmit") && !transmitting) {
            rows.back().header += ", Transmit: ";
            transmitting = true;
        } else {
            rows.back().header += ", ";
        }
        rows.back().header += key.substr(key.find('_') + 1);
        rows.back().row += "," + value;
        const auto number = static_cast<std::uint32_t>(decimal_prefix_unsigned(value));
        if (has("receive") && (has("errs") || has("drop") || has("frame"))) {
            failed[0] += number;
        } else if (has("transmit") && (has("errs") || has("drop"))) {
            failed[1] += number;
        }
    }
    finish();
    return rows;
}

void store_network_info_no_retention(const std::string &network_directory,
                                     const std::string &rate) {
    append_rows(network_directory + "/network.csv", "Date,Time,Network Bandwidth (Mbit/s)\r\n",
                row_time() + "," + rate + "\r\n");
}

void store_proc_net_dev(const std::string &session) {
    const unique_fd source(::open("/proc/net/dev", O_RDONLY | O_CLOEXEC));
    if (!source) {
        log_cannot_open("/proc/net/dev");
        return;
    }
    // One read gives whole lines; interfaces beyond the buffer are not recorded.
    std::array<char, net_dev_read_max> buffer;
    const ssize_t size = ::read(source.get(), buffer.data(), buffer.size());
    store_net_dev(session, {buffer.data(), size < 0 ? 0 : static_cast<std::size_t>(size)});
}

void store_net_dev(const std::string &session, std::string_view text) {
    net_dev_values values;
    if (const auto error = parse_proc_net_dev(text, values)) {
        log_net_dev_error(*error);
        return;
    }
    const std::string directory = session + "/system_monitoring/monitoring_network";
    const auto received = counter(values, "eth0.csv/receive_bytes");
    const auto sent = counter(values, "eth0.csv/transmit_bytes");
    if (received && sent) {
        const bandwidth_sample sample{std::time(nullptr), *received, *sent};
        if (const auto rate = bandwidth(sample, last_sample)) {
            store_network_info_no_retention(directory, *rate);
        }
        last_sample = sample;
    }
    const std::string now = row_time();
    for (const interface_row &entry : interface_rows(values)) {
        append_rows(session_file(session, "monitoring_network", file_name_of(entry.file_name)),
                    entry.header, now + entry.row);
    }
}

void store_proc_interrupts(const std::string &interrupts_directory) {
    const std::string target =
        format_bounded(file_path_size, "%s/%s_interrupts.txt", interrupts_directory.c_str(),
                       date_format_now("%Y%m%d_%H%M%S").c_str());
    if (file_copy("/proc/interrupts", target.c_str())) {
        // The copy would keep the kernel file's time, which is that of its first use.
        (void)::utimensat(AT_FDCWD, target.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
        errno = 0;
    }
}
