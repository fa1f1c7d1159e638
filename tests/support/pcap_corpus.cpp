#include "pcap_corpus.h"

#include <algorithm>
#include <cstdarg>
#include <random>
#include <set>

namespace {

// A place where a header can be read, and what it says.
struct readable_header {
    std::size_t at;
    std::uint32_t sec, frac, stored, wire;
    std::uint32_t inserted = 0; // carriage returns inside it
};

// How a record's lengths differ from its data.
struct lie {
    int stored = 0;
    int wire = 0;
    bool readable = true;
};
constexpr lie honest;
constexpr lie unreadable{0x7000000, 0, false};

// A capture in the making. All data are 0xEE, which is in no length, and times are such that no
// header can be read a few bytes off.
struct capture {
    bool big_endian = false;
    bool nano = false;
    std::string bytes{};
    std::vector<readable_header> headers{};
    std::uint32_t sec = 1700000000;
    std::uint32_t frac = 0;    // of the next record
    unsigned wrong_fields = 0; // a bit for each field of the global header, the magic number first
};

[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...) {
    char buffer[256];
    va_list values;
    va_start(values, format);
    std::vsnprintf(buffer, sizeof buffer, format, values);
    va_end(values);
    return buffer;
}

std::string number(const capture &c, std::uint32_t value, int size = 4) {
    std::string stored;
    for (int i = 0; i < size; i++) {
        stored += static_cast<char>(value >> 8 * (c.big_endian ? size - 1 - i : i));
    }
    return stored;
}

std::uint32_t number_at(const capture &c, std::size_t at) {
    std::uint32_t value = 0;
    for (unsigned i = 0; i < 4; i++) {
        const auto byte = static_cast<unsigned char>(c.bytes[at + i]);
        value |= static_cast<std::uint32_t>(byte) << 8 * (c.big_endian ? 3 - i : i);
    }
    return value;
}

struct global_field {
    const char *name;
    std::uint32_t good, bad;
    int size;
};
constexpr global_field global_fields[] = {
    {"Magic number", 0, 0x12345678, 4},
    {"Major version number", 2, 3, 2},
    {"Minor version number", 4, 5, 2},
    {"GTM to local correction", 0, 0x0202, 2},
    {"Accuracy of timestamps", 0, 0x777777, 4},
    {"Max packet length", 65535, 65536, 4},
    {"Data link type", 1, 252, 4},
};

std::uint32_t magic(const capture &c) {
    return c.nano ? 0xa1b23c4d : 0xa1b2c3d4;
}

void add_global(capture &c, unsigned wrong_fields = 0) {
    c.wrong_fields = wrong_fields;
    c.bytes += wrong_fields & 1 ? number(c, global_fields[0].bad) : number(c, magic(c));
    for (unsigned i = 1; i < 7; i++) {
        const auto &field = global_fields[i];
        c.bytes += number(c, wrong_fields >> i & 1 ? field.bad : field.good, field.size);
        if (i == 3) {
            c.bytes += "\x01\x02"; // not looked at
        }
    }
    c.frac = c.nano ? 0x2af00101 : 0x080101;
}

void add_garbage(capture &c, std::size_t size) {
    c.bytes.append(size, '\xee');
}

void add_record(capture &c, std::uint32_t size, lie lengths = honest) {
    const readable_header header{c.bytes.size(), c.sec, c.frac,
                                 size + static_cast<std::uint32_t>(lengths.stored),
                                 size + static_cast<std::uint32_t>(lengths.wire)};
    if (lengths.readable) {
        c.headers.push_back(header);
    }
    c.bytes += number(c, header.sec) + number(c, header.frac) + number(c, header.stored) +
               number(c, header.wire);
    add_garbage(c, size);
    c.frac += 0x101;
}

// What a transfer in ASCII mode does: a carriage return before every line feed.
void transfer_in_ascii_mode(capture &c) {
    std::string sent;
    auto header = c.headers.begin();
    for (std::size_t i = 0; i < c.bytes.size(); i++) {
        if (header != c.headers.end() && header->at == i) {
            const auto *const start = c.bytes.data() + i;
            header->inserted = static_cast<std::uint32_t>(std::count(start, start + 16, '\n'));
            header->at = sent.size();
            ++header;
        }
        sent += c.bytes[i] == '\n' ? "\r\n" : std::string(1, c.bytes[i]);
    }
    c.bytes = sent;
}

// The first readable header in [from, to) that is within a day of the time (0: any).
const readable_header *next_header(const capture &c, std::size_t from, std::size_t to,
                                   std::uint32_t time) {
    for (auto header = std::lower_bound(c.headers.begin(), c.headers.end(), from,
                                        [](auto &h, auto at) { return h.at < at; });
         header != c.headers.end() && header->at < to; ++header) {
        const std::int64_t jump = std::int64_t{header->sec} - time;
        if (header->at + 32 <= c.bytes.size() && (time == 0 || std::abs(jump) <= 86400)) {
            return &*header;
        }
    }
    return nullptr;
}

std::string packet_text(const char *what, std::size_t count, std::size_t at,
                        const readable_header &h) {
    return text("%s Packet #%zu at position %zu (%u | %u | %u | %u).\n", what, count, at, h.sec,
                h.frac, h.stored, h.wire);
}

void expect_global(const capture &c, pcap_case &expected) {
    const unsigned wrong = c.wrong_fields;
    expected.log = "[*] Analyzing Global Header...\n";
    for (unsigned i = 0; i < 7; i++) {
        const auto &field = global_fields[i];
        const bool bad = wrong >> i & 1;
        const std::uint32_t value = bad ? field.bad : i == 0 ? magic(c) : field.good;
        if (i == 0) {
            expected.log += text("[%c] Magic number: 0x%x%s\n", bad ? '-' : '+',
                                 c.big_endian ? __builtin_bswap32(value) : value,
                                 bad                      ? ""
                                 : c.big_endian && c.nano ? " (SWAPPED - NANOSECONDS)"
                                 : c.big_endian           ? " (SWAPPED)"
                                 : c.nano                 ? " (NANOSECONDS)"
                                                          : "");
            expected.output += number(c, bad ? 0xa1b2c3d4 : magic(c));
            continue;
        }
        expected.log += text("[%c] %s: %u\n", bad ? '-' : '+', field.name, value);
        expected.output += number(c, field.good, field.size);
        if (i == 3) {
            expected.output += bad ? std::string(2, '\0') : "\x01\x02";
        }
    }
    expected.result = __builtin_popcount(wrong);
    expected.log += expected.result == 0 ? "[+] The global pcap header seems to be fine!\n"
                    : expected.result <= 3
                        ? "[-] The global pcap header seems to be corrupt! ==> CORRECTED\n"
                        : "[-] The global pcap header seems to be missing ==> CORRECTED!\n";
    expected.log += "[*] Analyzing packets...\n";
}

pcap_case expect(const char *name, const capture &c) {
    pcap_case expected{
        .name = text("%s%s%s", name, c.big_endian ? " swapped" : "", c.nano ? " nano" : ""),
        .input = c.bytes};
    std::string &log = expected.log;
    const std::size_t size = c.bytes.size();
    if (size < 24) {
        log = "[-] File is too small to read pcap global header.\n";
        expected.result = -2;
        return expected;
    }
    expect_global(c, expected);

    std::size_t at = expected.result >= 4 ? 0 : 24;
    std::size_t count = 1;
    bool overlaps = false;
    readable_header last{}; // written
    const auto write = [&](const readable_header &h, std::size_t data) {
        expected.output +=
            number(c, h.sec) + number(c, h.frac) + number(c, h.stored) + number(c, h.wire);
        expected.output += c.bytes.substr(data, h.stored);
        last = h;
    };
    const auto put_before = [](readable_header &h, const readable_header &next) {
        h.sec = next.frac != 0 || next.sec == 0 ? next.sec : next.sec - 1;
        h.frac = next.frac != 0 ? next.frac - 1 : next.sec != 0 ? 999999 : 0;
    };
    while (at < size) {
        if (size - at < 32) {
            log += text("[-] Not enough bytes left in file ==> SKIPPING %zu bytes.\n", size - at);
            expected.result++;
            if (count == 1) {
                log += "[-] No packet has been found!\n";
                expected.result = -2;
                return expected;
            }
            break;
        }
        if (const auto *here = next_header(c, at, at + 1, last.sec)) {
            readable_header record = *here;
            const std::size_t start = at + record.inserted;
            const auto rest = static_cast<std::int64_t>(size - start - 16) - record.stored;
            if (rest < 0 || (rest > 0 && rest < 16)) {
                log += text("[-] LAST PACKET MISMATCH (%u | %u | %u | %u)\n", record.sec,
                            record.frac, record.stored, record.wire);
                record.stored = static_cast<std::uint32_t>(size - start - 16);
                record.wire = std::max(record.wire, record.stored);
                log += packet_text("[+] CORRECTED", count, start, record);
                expected.result++;
            }
            const std::size_t end = start + 16 + record.stored;
            const auto *next = next_header(c, start + 17, end + 32, last.sec);
            if (rest >= 32 && next_header(c, end, end + 1, record.sec) == nullptr && next) {
                log += packet_text("[-] FOUND OVERLAPPING data of", count + 1, next->at, *next);
                record.stored = record.wire =
                    static_cast<std::uint32_t>(next->at + next->inserted - start - 16);
                if (count == 1) {
                    put_before(record, *next);
                }
                log += packet_text("[+] CORRECTED", count, start, record);
                expected.result++;
                overlaps = true;
            }
            write(record, start + 16);
            count++;
            at = start + 16 + record.stored;
            continue;
        }
        readable_header record{at, number_at(c, at), number_at(c, at + 4), number_at(c, at + 8),
                               number_at(c, at + 12)};
        log += packet_text("[-] CORRUPTED", count, at, record);
        const auto *next = next_header(c, at + 17, at + 65552, last.sec);
        if (next == nullptr && size - at >= 65551 + 32) {
            expected.dropped = true;
            if (count == 1) {
                log += "[-] Cannot align corrupted packet! \n"
                       "[-] Reached EOF without finding more packets!\n";
                expected.result = -1;
                return expected;
            }
            log += "[-] No next packet found within max packet range --> SKIPPING!\n";
            at += 65583;
            continue;
        }
        record.stored = record.wire =
            static_cast<std::uint32_t>((next ? next->at : size) - at - 16);
        record.sec = last.sec;
        record.frac = count == 1 ? 0 : last.frac + 1;
        if (next == nullptr) {
            log += "[*] End of file reached. Aligning last packet.\n" +
                   packet_text("[+] CORRECTED LAST", count, at, record);
            write(record, at + 16);
        } else {
            if (count == 1) {
                put_before(record, *next);
            }
            log += packet_text("[+] FOUND NEXT", count + 1, next->at, *next);
            if (record.stored >= 10 && record.frac <= (c.nano ? 1000000000 : 1000000)) {
                log += packet_text("[+] CORRECTED", count, at, record);
                write(record, at + 16);
            } else {
                log +=
                    text("[-] Packet #%zu at position %zu is invalid ==> SKIPPING.\n", count, at);
                expected.dropped = true;
            }
        }
        expected.result++;
        count++;
        at += 16 + record.stored;
    }
    if (expected.result != 0) {
        log += text("[*] Wrote %zu packets to file.\n", count - 1);
        if (overlaps) {
            log += "[!] This corruption seems to be a result of an ascii-mode transferred pcap "
                   "file via FTP.\n"
                   "[!] The pcap structure of those files can be repaired, but the data inside "
                   "might still be corrupted!\n";
        }
    }
    return expected;
}

using lies = std::vector<lie>;

// A record for each lie between two honest ones at either end.
capture with_records(capture c, const lies &between, std::uint32_t size = 100) {
    add_record(c, 60);
    add_record(c, 70);
    for (const lie &lengths : between) {
        add_record(c, size, lengths);
    }
    add_record(c, 60);
    add_record(c, 70);
    return c;
}

void add_cases(std::vector<pcap_case> &cases, const capture &empty) {
    const auto add = [&cases](const std::string &name, const capture &c) {
        cases.push_back(expect(name.c_str(), c));
    };
    capture start = empty;
    add_global(start);
    const capture intact = with_records(start, {});

    add("intact", intact);
    add("largest packet", with_records(start, {honest}, 65535));
    for (std::size_t size = 0; size <= 24 + 48; size++) { // no packet but for the last ones
        capture c = intact;
        c.bytes.resize(size);
        add("short file", c);
    }
    for (std::size_t cut = 1; cut <= 70 + 16; cut++) {
        capture c = intact;
        c.bytes.resize(c.bytes.size() - cut);
        add("cut", c);
    }
    for (unsigned wrong = 1; wrong < 0x80; wrong++) {
        // The byte order and resolution are known from the magic number alone.
        if ((wrong & 1) == 0 || (!empty.big_endian && !empty.nano)) {
            capture c = empty;
            add_global(c, wrong);
            add("wrong fields", with_records(c, {}));
        }
    }
    constexpr std::size_t garbage_sizes[] = {1,     9,     15,    16,    17,    25,    26,    27,
                                             31,    32,    33,    100,   65534, 65535, 65550, 65551,
                                             65552, 65567, 65582, 65583, 65584, 65600, 70000};
    for (const std::size_t size : garbage_sizes) {
        capture before = start;
        add_garbage(before, size);
        add("garbage before", with_records(before, {}));
        capture between = start;
        add_record(between, 60);
        add_garbage(between, size);
        add("garbage between", with_records(between, {}));
        capture after = intact;
        add_garbage(after, size);
        add("garbage after", after);
    }

    add("no data", with_records(start, {{40, 40}}, 0));
    const std::vector<std::pair<const char *, lies>> damages = {
        {"too long by 1", {{1, 1}}},
        {"too long by 15", {{15, 100}}},
        {"too long by 17", {{17, 17}}},
        {"too long over the next record", {{140, 140}}},
        {"too long, beyond the end", {{60000, 60000}}},
        {"too short by 1", {{-1, 0}}},
        {"too short by 31", {{-31, -31}}},
        {"too short by 32", {{-32, 0}}},
        {"too short by 80", {{-80, 0}}},
        {"zero length", {{-100, 0, false}}},
        {"zero length on the wire", {{0, -100, false}}},
        {"length of 9", {{-91, 0, false}}},
        {"length of 10", {{-90, 0}}},
        {"stored more than on the wire", {{0, -1, false}}},
        {"length over the limit", {{65436, 65436, false}}},
        {"only the length on the wire over the limit", {{0, 65436, false}}},
        {"two in a row", {unreadable, unreadable}},
        {"unreadable, then too short", {unreadable, {-20, 0}}},
        {"too long, then unreadable", {{20, 20}, unreadable}},
        {"many", {unreadable, honest, unreadable, {-5, 0}, {5, 5}, honest, {-5, 0}, unreadable}},
    };
    for (const auto &[name, between] : damages) {
        add(name, with_records(start, between));
        capture c = start; // the same at the start and at the end
        for (const lie &lengths : between) {
            add_record(c, 100, lengths);
        }
        c = with_records(c, between);
        for (const lie &lengths : between) {
            add_record(c, 100, lengths);
        }
        add(name, c);
    }

    for (const std::uint32_t jump : {86399U, 86400U, 86401U, 1000000U}) {
        for (const bool back : {false, true}) {
            capture c = intact;
            c.sec += back ? 0 - jump : jump;
            add("time jump", with_records(c, {unreadable}));
        }
    }
    capture far = intact; // within a day of the previous record, but not of the one before
    for (const std::uint32_t sec : {80000U, 160000U, 0U}) {
        far.sec = intact.sec + sec;
        add_record(far, 10);
    }
    add("time jumps in a row", with_records(far, {}));
    for (const std::uint32_t sec : {0U, 5U}) { // a first record's time is taken from its successor
        capture c = start;
        add_record(c, 300, unreadable);
        c.sec = sec;
        c.frac = 0;
        add_record(c, 300);
        add("time before", c);
    }
    capture whole_second = start; // no later fraction of it is left for the damaged one
    whole_second.frac = empty.nano ? 1000000000 : 1000000;
    add_record(whole_second, 60);
    whole_second.frac = start.frac;
    add_record(whole_second, 60, unreadable);
    add("end of a second", with_records(whole_second, {}));

    if (!empty.nano) { // a line feed in a fraction of nanoseconds reads as another one
        for (const int line_feeds : {0, 1, 3, 31, 32, 50}) {
            capture c = start;
            for (int i = 0; i < 4; i++) {
                c.sec = c.big_endian ? 0x650af100 : 0x0a654321;
                c.frac = i % 2 == 0 ? 0x080a01 : 0x080101;
                add_record(c, 100);
                std::fill_n(c.bytes.end() - 60, line_feeds, '\n');
            }
            transfer_in_ascii_mode(c);
            add("ASCII mode", c);
        }
        for (std::uint32_t size = 200; size < 270; size++) {
            capture c = start;
            add_record(c, size, unreadable);
            c.frac = 0x080a01;
            add_record(c, 100);
            add_record(c, 100);
            transfer_in_ascii_mode(c);
            add("ASCII mode after damage", c);
        }
    }

    std::mt19937 generator(empty.big_endian * 2 + empty.nano); // NOLINT: the same each time
    const auto random = [&generator] { return static_cast<std::uint32_t>(generator()); };
    for (int i = 0; i < 300; i++) {
        capture c = start;
        const bool large = i == 0; // many times what the repairer holds in memory
        while (large ? c.bytes.size() < 1500000 : c.headers.size() < 8) {
            const int by = static_cast<int>(random() % 60) + 1;
            const lie kinds[] = {honest, honest, honest, unreadable, {by, by}, {-by, 0}};
            add_record(c, 80 + random() % (large ? 3000 : 100), kinds[random() % 6]);
            c.frac = start.frac + (c.frac + 0x101) % 0x10000 / 0x101 * 0x101;
            if (random() % 8 == 0) {
                add_garbage(c, random() % 60);
            }
        }
        c.bytes.resize(c.bytes.size() - random() % 150);
        add("random", c);
    }
}

int try_deletions(const std::string &bytes, std::uint32_t prior_ts, std::set<std::string> &failed) {
    if (failed.count(bytes) != 0) {
        return -1;
    }
    const capture c{.bytes = bytes};
    const std::uint32_t sec = number_at(c, 0);
    const std::uint32_t stored = number_at(c, 8);
    const std::uint32_t wire = number_at(c, 12);
    if (stored >= 10 && stored <= wire && wire <= 65535 && number_at(c, 4) <= 1000000 &&
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

std::vector<pcap_case> pcap_corpus() {
    std::vector<pcap_case> cases;
    for (const bool big_endian : {false, true}) {
        for (const bool nano : {false, true}) {
            add_cases(cases, capture{.big_endian = big_endian, .nano = nano});
        }
    }
    return cases;
}

int check_header_by_trying(const std::string &bytes, std::uint32_t prior_ts) {
    std::set<std::string> failed;
    return try_deletions(bytes, prior_ts, failed);
}
