// What the kernel and the process list tell, as rows of a session's files. Main loop only, but for
// the parsers, which only look at their text.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// --- Collectors: each reads its source and appends to the session's files.

void store_load_avg_info_no_retention(const std::string &session_directory);
void store_page_faults(const std::string &session_directory);
void store_buddyinfo(const std::string &session_directory);
void store_proc_meminfo(const std::string &session_directory);
void store_slab_info(const std::string &session_directory);
// The counters of each network interface, and the bandwidth of eth0 since the last call.
void store_proc_net_dev(const std::string &session_directory);
// The same for a text that was read from /proc/net/dev.
void store_net_dev(const std::string &session_directory, std::string_view text);
// Appends one row to network.csv in the folder.
void store_network_info_no_retention(const std::string &network_directory, const std::string &rate);

// Copies /proc/interrupts into the folder as STAMP_interrupts.txt.
void store_proc_interrupts(const std::string &interrupts_directory);

// The digits of a counter of /proc/vmstat; "" after an error line when there is none.
std::string vmstat_get_val(const char *counter);

// --- Parsers

// "/proc/net/dev" by key, "eth0.csv/receive_bytes" to "123"; sorted as the files' columns are.
using net_dev_values = std::map<std::string, std::string>;

// The parse step that failed, as the log shows it.
struct net_dev_error {
    int step;
    std::string near; // of step 3: the unterminated word
};

// Parses the text of /proc/net/dev; a truncated last line is ignored.
std::optional<net_dev_error> parse_proc_net_dev(std::string_view text, net_dev_values &values);

// One file of interface counters: its header and its row.
struct interface_row {
    std::string file_name; // "eth0.csv"
    std::string header;
    std::string row; // without the time in front
};
std::vector<interface_row> interface_rows(const net_dev_values &values);

// A line of /proc/meminfo, "MemFree:         1234567 kB" or "HugePages_Total:       0"; nothing
// without a colon.
struct meminfo_line {
    std::string_view name;
    std::string_view value; // digits
    bool is_in_kib = false;
};
std::optional<meminfo_line> parse_meminfo_line(std::string_view line);

// The digits of a line of /proc/vmstat, "pgfault 1234567", at most 20; "" without any.
std::string_view parse_vmstat_line(std::string_view line);

// A line of /proc/slabinfo, "kmalloc-192  1302  1302  192  42  2 : tunables  0  0  0 : slabdata  31
// 31  0"; nothing for its comments.
struct slab_line {
    std::string_view name;
    std::string numbers; // ",1302,1302,192,42,2,0,0,0,31,31,0"
};
std::optional<slab_line> parse_slab_line(std::string_view line);

// The digits of a counter in the text of /proc/vmstat; "" without it.
std::string_view find_vmstat_counter(std::string_view text, std::string_view counter);

// Free blocks by zone (DMA, DMA32, Normal, HighMem) and order.
struct buddy_table {
    static constexpr std::size_t orders = 16;
    std::array<std::array<long long, orders>, 4> zones{};
    std::array<bool, 4> has_zone{};
    std::array<long long, orders> totals{};
    std::size_t highest_order = 0;
};
inline constexpr const char *zone_names[] = {"DMA", "DMA32", "Normal", "HighMem"};
buddy_table parse_buddyinfo(std::string_view text);

// The three averages of a line of `uptime` as printed; nothing when there are none.
std::optional<std::array<std::string, 3>> parse_load_average(std::string_view uptime_line);
