#include "pcap_corpus.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <random>
#include <set>
#include <sstream>

namespace {

std::string number(std::uint32_t value, bool big_endian, int size = 4) {
    std::string stored;
    for (int i = 0; i < size; i++) {
        stored += static_cast<char>(value >> 8 * (big_endian ? size - 1 - i : i));
    }
    return stored;
}

std::uint32_t number_at(const std::string &bytes, std::size_t at, bool big_endian = false) {
    std::uint32_t value = 0;
    for (unsigned i = 0; i < 4; i++) {
        const auto byte = static_cast<unsigned char>(bytes[at + i]);
        value |= static_cast<std::uint32_t>(byte) << 8 * (big_endian ? 3 - i : i);
    }
    return value;
}

// A capture in the making. All data are 0xEE, which is in no length, and times are such that no
// header can be read a few bytes off.
struct builder {
    bool big_endian;
    bool nano;
    std::string bytes{};
    std::uint32_t sec = 1700000000;
    std::uint32_t frac = nano ? 0x2af00101 : 0x080101; // of the next record
    struct written {
        std::size_t at, end;
        bool honest;
    };
    std::vector<written> records{};
    bool in_order = true; // times don't jump, lengths are a transfer's

    std::string number_of(std::uint32_t value, int size = 4) const {
        return number(value, big_endian, size);
    }
    void add_global() {
        bytes = number_of(nano ? 0xa1b23c4d : 0xa1b2c3d4) + number_of(2, 2) + number_of(4, 2) +
                std::string("\0\0\1\2", 4) + // the last two aren't looked at
                number_of(0) + number_of(65535) + number_of(1);
    }
    // `size` bytes of data under lengths that may differ from it.
    void add_record(std::uint32_t size, std::uint32_t stored, std::uint32_t wire) {
        const std::size_t at = bytes.size();
        bytes += number_of(sec) + number_of(frac) + number_of(stored) + number_of(wire) +
                 std::string(size, '\xee');
        records.push_back({at, bytes.size(), stored == size && wire == size});
        frac += 0x101;
    }
    void add_with_line_feeds(long count) {
        in_order = false;
        sec = big_endian ? 0x650af100 : 0x0a654321;
        frac = records.size() % 2 == 0 ? 0x080a01 : 0x080101;
        add_record(100, 100, 100);
        std::fill_n(bytes.end() - 60, count, '\n');
    }
    void transfer_in_ascii_mode() {
        std::string sent;
        for (const char byte : bytes) {
            sent += byte == '\n' ? "\r\n" : std::string(1, byte);
        }
        bytes = sent;
    }
    void add(const std::string &word) {
        const bool is_record = std::isdigit(static_cast<unsigned char>(word[0])) != 0;
        char *rest = nullptr;
        const long given = std::strtol(word.c_str() + (is_record ? 0 : 1), &rest, 10);
        const auto value = static_cast<std::uint32_t>(given);
        switch (word[0]) {
        case '!':
            return add_record(value, 0x7000000, value);
        case '~':
            bytes.append(value, '\xee');
            return;
        case '%':
            return bytes.resize(bytes.size() - value);
        case 'T':
            sec += value;
            in_order = false;
            return;
        case 'Z':
            sec = value;
            frac = 0;
            return;
        case 'L':
            return add_with_line_feeds(given);
        case 'A':
            return transfer_in_ascii_mode();
        default:
            break;
        }
        const bool both = *rest == ':';
        const auto other = static_cast<std::uint32_t>(std::strtol(rest + both, &rest, 10));
        const auto wire = both ? std::strtoul(rest + 1, nullptr, 10) : value + other;
        add_record(value, both ? other : value + other, static_cast<std::uint32_t>(wire));
    }
    // Safe: a whole record between two whole ones, with nothing between them.
    pcap_case finish(const std::string &name) const {
        pcap_case made{.name = name + (big_endian ? " swapped" : "") + (nano ? " nano" : ""),
                       .big_endian = big_endian,
                       .input = bytes};
        for (std::size_t i = 1; in_order && i + 1 < records.size(); i++) {
            const written &before = records[i - 1];
            const written &after = records[i + 1];
            const auto &[at, end, honest] = records[i];
            if (before.honest && honest && after.honest && before.end == at && end == after.at &&
                after.end <= bytes.size()) {
                made.safe.push_back(bytes.substr(at, end - at));
            }
        }
        return made;
    }
};

constexpr struct {
    const char *input;
    int result;
    bool dropped;
    const char *summary;
} damages[] = {
    {"60 70 60 70", 0, false, "60 70 60 70"},
    {"60 65535 10 70", 0, false, "60 65535 10 70"},
    {"60 100:100/140 60", 0, false, "60 100/140 60"},
    {"60 %44", 1, false, "16/60"},
    {"60 %45", -2, false, ""},
    {"60 70 %1", 1, false, "60 69/70"},
    {"60 70 %54", 1, false, "60 16/70"},
    {"60 70 %55", 1, false, "60"},
    {"60 70 %71", 1, false, "75"},
    {"~16 60 70", 1, false, "76 70"},
    {"~17 60 70", 1, true, "60 70"},
    {"~26 60 70", 1, false, "10 60 70"},
    {"~65551 60 70", 1, false, "65535 60 70"},
    {"~65552 60 70", -1, true, ""},
    {"60 ~16 60 70", 1, false, "76 60 70"},
    {"60 ~65551 60 70", 1, false, "60 65535 60 70"},
    {"60 ~65552 60 70", 1, true, "60 29 70"},
    {"60 ~65583 60 70", 0, true, "60 60 70"},
    {"60 70 ~15", 1, false, "60 85"},
    {"60 70 ~32", 1, false, "60 70 16"},
    {"60 70 ~65582", 1, false, "60 70 65566"},
    {"60 70 ~65583", 0, true, "60 70"},
    {"60 0:40/40 60 70", 1, false, "60 40 20 70"},
    {"60 70 100+1 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100+17 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100+140 60 70", 1, false, "60 70 240"},
    {"60 70 100+60000 60 70", 1, false, "60 70 262/60100"},
    {"60 70 100-31 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100:68/100 60 70", 1, false, "60 70 68/100 16 60 70"},
    {"60 70 100:0/100 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100:9/100 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100:10/100 60 70", 1, false, "60 70 10/100 74 60 70"},
    {"60 70 100:100/99 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100:65536/65536 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 100:100/65536 60 70", 1, false, "60 70 100 60 70"},
    {"60 70 !100 !100 60 70", 1, false, "60 70 216 60 70"},
    {"60 70 !100 100-20 60 70", 2, false, "60 70 100 100 60 70"},
    {"60 70 100+20 !100 60 70", 1, false, "60 70 120 80 60 70"},
    {"100+17 60 70", 1, false, "100 60 70"},
    {"60 70 100+17", 1, false, "60 70 100/117"},
    {"60 70 T86400 60 70 !100 60 70", 1, false, "60 70 60 70 100 60 70"},
    {"60 70 T86401 60 70 !100 60 70", 1, false, "60 70 424"},
    {"60 70 T-86400 60 70", 0, false, "60 70 60 70"},
    {"60 70 T-86401 60 70", 1, false, "60 70 146"},
    {"60 70 T80000 10 T80000 10 T-80000 10 60 70", 0, false, "60 70 10 10 10 60 70"},
    {"L0 L0 L0 L0 A", 0, false, "100 100 100 100"},
    {"L1 L1 L1 L1 A", 4, false, "102 101 102 101"},
    {"L32 L32 L32 L32 A", 4, false, "100 16 100 16 100 16 100 16"},
};

// Inputs whose outcomes aren't written down.
void add_sweeps(std::vector<pcap_case> &cases, bool big_endian, bool nano) {
    const auto add = [&](const std::string &text) {
        cases.push_back(pcap_capture(text, big_endian, nano));
    };
    for (int cut = 1; cut <= 24 + 4 * 16 + 260; cut++) {
        add("60 70 60 70 %" + std::to_string(cut));
    }
    for (const int size : {1, 9, 15, 25, 31, 32, 33, 65535, 65551}) {
        const std::string garbage = " ~" + std::to_string(size) + " ";
        add(garbage + "60 70 60 70");
        add("60 70 60 70" + garbage + "60 70 60 70");
        add("60 70 60 70" + garbage);
    }
    for (int size = 200; size < 270 && !nano; size++) {
        add("!" + std::to_string(size) + " L0 L0 A");
    }
    std::mt19937 generator(big_endian * 2 + nano); // NOLINT: the same each time
    const auto random = [&generator](std::uint32_t below) {
        return static_cast<std::uint32_t>(generator() % below);
    };
    for (int i = 0; i < 300; i++) {
        const bool large = i == 0; // many times what the repairer holds in memory
        builder made{big_endian, nano};
        made.add_global();
        const std::uint32_t first = made.frac;
        while (large ? made.bytes.size() < 1500000 : made.records.size() < 12) {
            const std::uint32_t size = 80 + random(large ? 3000 : 100);
            const std::uint32_t by = random(60) + 1;
            const std::uint32_t stored[] = {0x7000000, size + by, size - by};
            const std::uint32_t kind = random(9);
            made.add_record(size, kind < 3 ? stored[kind] : size, kind == 1 ? size + by : size);
            made.frac = first + (made.frac - first) % 0x10000;
            if (random(12) == 0) {
                made.bytes.append(random(60), '\xee');
            }
        }
        made.bytes.resize(made.bytes.size() - random(150));
        cases.push_back(made.finish("random " + std::to_string(i)));
    }
}

int try_deletions(const std::string &bytes, std::uint32_t prior_ts, std::set<std::string> &failed) {
    if (failed.count(bytes) != 0) {
        return -1;
    }
    const std::uint32_t sec = number_at(bytes, 0);
    const std::uint32_t stored = number_at(bytes, 8);
    const std::uint32_t wire = number_at(bytes, 12);
    if (stored >= 10 && stored <= wire && wire <= 65535 && number_at(bytes, 4) <= 1000000 &&
        (prior_ts == 0 || sec <= prior_ts + 86400) &&
        (prior_ts < 86400 || sec >= prior_ts - 86400)) {
        return 0;
    }
    for (std::size_t i = 0; i < 16 && bytes.size() >= 26; i++) {
        if (bytes.compare(i, 2, "\r\n") == 0) {
            const int more =
                try_deletions(bytes.substr(0, i) + bytes.substr(i + 1), prior_ts, failed);
            if (more != -1) {
                return more + 1;
            }
        }
    }
    failed.insert(bytes);
    return -1;
}

} // namespace

pcap_case pcap_capture(const std::string &text, bool big_endian, bool nano) {
    builder made{big_endian, nano};
    made.add_global();
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        made.add(word);
    }
    return made.finish(text);
}

std::vector<pcap_case> pcap_corpus() {
    std::vector<pcap_case> cases;
    for (const int format : {0, 1, 2, 3}) {
        const bool big_endian = format % 2 == 1;
        const bool nano = format >= 2;
        for (const auto &[input, result, dropped, summary] : damages) {
            if (!nano || input[0] != 'L') { // a line feed in nanoseconds reads as another one
                cases.push_back(pcap_capture(input, big_endian, nano));
                cases.back().listed = true;
                cases.back().result = result;
                cases.back().dropped = dropped;
                cases.back().summary = summary;
            }
        }
        add_sweeps(cases, big_endian, nano);
    }
    return cases;
}

std::string pcap_summary(const std::string &file, bool big_endian) {
    std::string text;
    for (std::size_t at = 24; at < file.size();) {
        if (file.size() - at < 16 || file.size() - at - 16 < number_at(file, at + 8, big_endian)) {
            return "broken";
        }
        const std::uint32_t stored = number_at(file, at + 8, big_endian);
        const std::uint32_t wire = number_at(file, at + 12, big_endian);
        text += (text.empty() ? "" : " ") + std::to_string(stored);
        text += wire == stored ? "" : "/" + std::to_string(wire);
        at += 16 + std::size_t{stored};
    }
    return text;
}

int check_header_by_trying(const std::string &bytes, std::uint32_t prior_ts) {
    std::set<std::string> failed;
    return try_deletions(bytes, prior_ts, failed);
}
