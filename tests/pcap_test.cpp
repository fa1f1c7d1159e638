#include "handle.h"
#include "pcap.h"
#include "pcap_corpus.h"
#include "pcapfix.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

// The state of a process that has repaired nothing yet.
void forget() {
    swapped = nanoseconds = deep_scan = 0;
    data_link_type = -1;
}

struct repaired {
    int result = 0;
    std::string output;
    std::string log;
    bool dropped = false;
};

repaired repair(const std::string &input) {
    const unique_file in(std::tmpfile());
    EXPECT_EQ(std::fwrite(input.data(), 1, input.size(), in.get()), input.size());
    char *bytes[2] = {};
    std::size_t sizes[2] = {};
    std::FILE *const out = ::open_memstream(&bytes[0], &sizes[0]);
    std::FILE *const log = ::open_memstream(&bytes[1], &sizes[1]);
    repaired made;
    made.result = fix_pcap(in.get(), out, log, &made.dropped);
    std::fclose(out);
    std::fclose(log);
    made.output.assign(bytes[0], sizes[0]);
    made.log.assign(bytes[1], sizes[1]);
    std::free(bytes[0]); // NOLINT(cppcoreguidelines-no-malloc): open_memstream's
    std::free(bytes[1]); // NOLINT(cppcoreguidelines-no-malloc)
    return made;
}

std::string words(std::initializer_list<std::uint32_t> values) {
    return {reinterpret_cast<const char *>(values.begin()), values.size() * 4};
}

const std::string global_header = words({0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1});
std::string record(std::uint32_t sec, std::uint32_t usec, std::uint32_t size) {
    return words({sec, usec, size, size}) + std::string(size, '\xee');
}

} // namespace

// What holds for every capture: one that is fine comes as it is; what was repaired is fine; records
// that are whole among others stay.
TEST(Pcap, RepairsTheCorpus) {
    for (const pcap_case &c : pcap_corpus()) {
        SCOPED_TRACE(c.name);
        forget();
        const repaired made = repair(c.input);
        const std::string summary = pcap_summary(made.output, c.big_endian);
        if (c.listed) {
            EXPECT_EQ(made.result, c.result) << made.log;
            EXPECT_EQ(made.dropped, c.dropped);
            EXPECT_EQ(summary, c.summary);
        }
        ASSERT_NE(summary, "broken");
        if (made.result < 0) {
            continue;
        }
        if (c.name.find('A') == std::string::npos) { // carriage returns in headers aren't counted
            ASSERT_EQ(made.result == 0 && !made.dropped, made.output == c.input);
        }
        // A last record that is longer than one may be stays so.
        if (c.name.find("~65582") == std::string::npos) {
            const repaired again = repair(made.output);
            ASSERT_TRUE(again.result == 0 && again.output == made.output) << made.log << again.log;
        }
        std::size_t at = 0;
        for (const std::string &record : c.safe) {
            at = made.output.find(record, at);
            ASSERT_NE(at, std::string::npos) << made.log;
            at += record.size();
        }
    }
}

TEST(Pcap, SaysWhatItCorrects) {
    const struct {
        const char *capture;
        std::string log; // behind what it says of the global header
    } cases[] = {
        {"!100 60 100+17 70 60 70 100+17",
         "[-] CORRUPTED Packet #1 at position 24 (1700000000 | 524545 | 117440512 | 100).\n"
         "[+] FOUND NEXT Packet #2 at position 140 (1700000000 | 524802 | 60 | 60).\n"
         "[+] CORRECTED Packet #1 at position 24 (1700000000 | 524801 | 100 | 100).\n"
         "[-] FOUND OVERLAPPING data of Packet #4 at position 332 (1700000000 | 525316 | 70 | "
         "70).\n"
         "[+] CORRECTED Packet #3 at position 216 (1700000000 | 525059 | 100 | 100).\n"
         "[-] LAST PACKET MISMATCH (1700000000 | 526087 | 117 | 117)\n"
         "[+] CORRECTED Packet #7 at position 580 (1700000000 | 526087 | 100 | 117).\n"
         "[*] Wrote 7 packets to file.\n"
         "[!] This corruption seems to be a result of an ascii-mode transferred pcap file via "
         "FTP.\n"
         "[!] The pcap structure of those files can be repaired, but the data inside might still "
         "be corrupted!\n"},
        {"!300 Z5 300 !60",
         "[-] CORRUPTED Packet #1 at position 24 (1700000000 | 524545 | 117440512 | 300).\n"
         "[+] FOUND NEXT Packet #2 at position 340 (5 | 0 | 300 | 300).\n"
         "[+] CORRECTED Packet #1 at position 24 (4 | 999999 | 300 | 300).\n"
         "[-] CORRUPTED Packet #3 at position 656 (5 | 257 | 117440512 | 60).\n"
         "[*] End of file reached. Aligning last packet.\n"
         "[+] CORRECTED LAST Packet #3 at position 656 (5 | 1 | 60 | 60).\n"
         "[*] Wrote 3 packets to file.\n"},
        {"60 ~65552 60 70",
         "[-] CORRUPTED Packet #2 at position 100 (4008636142 | 4008636142 | 4008636142 | "
         "4008636142).\n"
         "[-] No next packet found within max packet range --> SKIPPING!\n"
         "[-] CORRUPTED Packet #2 at position 65683 (4008636142 | 4008636142 | 4008636142 | "
         "4008636142).\n"
         "[+] FOUND NEXT Packet #3 at position 65728 (1700000000 | 525059 | 70 | 70).\n"
         "[+] CORRECTED Packet #2 at position 65683 (1700000000 | 524546 | 29 | 29).\n"
         "[*] Wrote 3 packets to file.\n"},
        {"~17 60 70", "[-] CORRUPTED Packet #1 at position 24 (4008636142 | 4008636142 | "
                      "4008636142 | 4008636142).\n"
                      "[+] FOUND NEXT Packet #2 at position 41 (1700000000 | 524545 | 60 | 60).\n"
                      "[-] Packet #1 at position 24 is invalid ==> SKIPPING.\n"
                      "[*] Wrote 3 packets to file.\n"},
        {"~65583", "[-] CORRUPTED Packet #1 at position 24 (4008636142 | 4008636142 | 4008636142 | "
                   "4008636142).\n"
                   "[-] Cannot align corrupted packet! \n"
                   "[-] Reached EOF without finding more packets!\n"},
        {"~16", "[-] Not enough bytes left in file ==> SKIPPING 16 bytes.\n"
                "[-] No packet has been found!\n"},
    };
    for (const auto &[capture, log] : cases) {
        forget();
        const std::string said = repair(pcap_capture(capture).input).log;
        const std::string begin = "[*] Analyzing packets...\n";
        EXPECT_EQ(said.substr(said.find(begin) + begin.size()), log) << capture;
    }
    const char *const formats[] = {"d4\n", "a1 (SWAPPED)\n", "4d (NANOSECONDS)\n",
                                   "a1 (SWAPPED - NANOSECONDS)\n"};
    for (const int i : {0, 1, 2, 3}) {
        const std::string said = repair(pcap_capture("60", i % 2 == 1, i >= 2).input).log;
        EXPECT_NE(said.find(formats[i]), std::string::npos) << said;
    }
    EXPECT_EQ(repair("short").log, "[-] File is too small to read pcap global header.\n");
}

TEST(Pcap, CorrectsFieldsOfTheGlobalHeader) {
    const struct {
        std::size_t at;
        std::string wrong, line;
    } fields[] = {
        {0, words({0x12345678}), "[-] Magic number: 0x12345678\n"},
        {4, "\3", "[-] Major version number: 3\n"},
        {6, "\5", "[-] Minor version number: 5\n"},
        {8, "\2\2", "[-] GTM to local correction: 514\n"},
        {12, "\7", "[-] Accuracy of timestamps: 7\n"},
        {16, words({65536}), "[-] Max packet length: 65536\n"},
        {20, "\374", "[-] Data link type: 252\n"},
    };
    const std::string packets = record(1700000000, 600000, 60) + record(1700000000, 700000, 60);
    std::string input = global_header + packets;
    for (const auto &[at, wrong, line] : fields) { // one more wrong each time
        input.replace(at, wrong.size(), wrong);
        forget();
        const repaired made = repair(input);
        EXPECT_NE(made.log.find(line), std::string::npos) << made.log;
        const bool missing = at > 6; // four
        EXPECT_NE(made.log.find(missing ? "missing ==> CORRECTED!\n" : "corrupt! ==> CORRECTED\n"),
                  std::string::npos);
        EXPECT_TRUE(missing || made.output == global_header + packets) << line;
        EXPECT_EQ(made.output.substr(0, 24), global_header);
    }
}

TEST(Pcap, ChecksPlausibilityInOrder) {
    forget();
    const struct {
        packet_hdr_s header;
        std::uint32_t prior_ts;
        int expected;
    } cases[] = {
        {{0, 1000000, 10, 10}, 0, 0},     {{7, 1, 65535, 65535}, 86400 + 7, 0},
        {{0, ~0U, 9, 9}, 0, -1},          {{0, ~0U, 65536, 9}, 0, -2},
        {{0, ~0U, 65536, 65536}, 0, -3},  {{0, ~0U, 65535, 65536}, 0, -4},
        {{0, ~0U, 11, 10}, 0, -5},        {{86402, ~0U, 10, 10}, 1, -6},
        {{86401, 0, 10, 10}, 1, 0},       {{0, ~0U, 10, 10}, 86401, -7},
        {{0, 0, 10, 10}, 86400, 0},       {{0, 1000001, 10, 10}, 86400, -8},
        {{5, 0, 10, 10}, 0xffffffff, -7}, {{0xffffffff, 0, 10, 10}, 0xfffffff0, -6},
    };
    for (const auto &[header, prior_ts, expected] : cases) {
        EXPECT_EQ(is_plausible(header, prior_ts), expected)
            << header.ts_sec << ' ' << header.incl_len << ' ' << prior_ts;
    }
    nanoseconds = 1;
    EXPECT_EQ(is_plausible({0, 1000000000, 10, 10}, 0), 0);
    EXPECT_EQ(is_plausible({0, 1000000001, 10, 10}, 0), -9);
}

TEST(Pcap, KeepsItsFlagsForLaterRepairs) {
    forget();
    const std::string slow = global_header + record(7, 999, 20) + record(8, 5000000, 20);
    EXPECT_NE(repair(slow).result, 0);
    const std::string nano = words({0xa1b23c4d, 0x00040002, 0, 0, 65535, 1});
    EXPECT_EQ(repair(nano).result, 0);
    EXPECT_EQ(repair(slow).result, 0);

    const std::string other_order("\xa1\xb2\xc3\xd4\0\2\0\4\0\0\0\0\0\0\0\0\0\0\xff\xff\0\0\0\1",
                                  24);
    EXPECT_EQ(repair(other_order).result, 0);
    EXPECT_EQ(repair("magi" + other_order.substr(4)).output, other_order);
    // All fields but zeros are wrong in that order: what the file says is now read as records.
    const repaired made = repair(global_header);
    EXPECT_EQ(made.result, -2);
    EXPECT_NE(made.log.find("[-] Data link type: 16777216\n"), std::string::npos);
    EXPECT_EQ(made.output, "\xd4\xc3\xb2\xa1" + other_order.substr(4));
}

TEST(Pcap, KnowsItsSettings) {
    forget();
    data_link_type = 105;
    EXPECT_EQ(repair(global_header).output, words({0xa1b2c3d4, 0x00040002, 0, 0, 65535, 105}));
    EXPECT_EQ(repair(words({1, 2, 3, 4, 1000, 5})).output,
              words({0xa1b2c3d4, 0x00040002, 0, 0, 65535, 105}));
    data_link_type = -1;
    EXPECT_EQ(repair(words({1, 2, 3, 4, 1000, 5})).output, global_header);

    const std::string packets = record(1700000000, 600000, 60) + record(1700000000, 700000, 60);
    const repaired headless = repair(packets);
    EXPECT_EQ(headless.result, 7);
    EXPECT_TRUE(headless.output == global_header + packets);

    // Some garbage is a damaged first record, more is left out.
    deep_scan = 1;
    const std::string near = global_header + std::string(65551, '\xee') + packets;
    EXPECT_EQ(repair(near).result, 1);
    const repaired later = repair(global_header + packets + std::string(70000, '\xee') + packets);
    EXPECT_NE(later.log.find("[-] No next packet found within max packet range --> SKIPPING!\n"),
              std::string::npos);
    for (const std::size_t size : {65552, 70000, 131104, 131105, 131200, 2000000}) {
        std::string start = global_header;
        start.append(size, '\xee');
        const repaired made = repair(start + packets);
        EXPECT_TRUE(made.log.ends_with("[+] (DEEP SCAN) FOUND FIRST Packet #1 at position " +
                                       std::to_string(24 + size) +
                                       " (1700000000 | 600000 | 60 | 60).\n"))
            << made.log;
        EXPECT_TRUE(made.output == global_header + packets);
        EXPECT_EQ(made.result, 0);
        EXPECT_TRUE(made.dropped);
        EXPECT_EQ(repair(start + std::string(32, '\xee')).result, -1);
        EXPECT_EQ(repair(start + record(1700000000, 600000, 16)).result, 0);
    }
}

// A file that ends before its size, as when it is cut meanwhile, and a full storage.
TEST(Pcap, EndsWhenFilesFail) {
    forget();
    struct cookie {
        std::size_t readable;
        off64_t position = 0;
    };
    cookie_io_functions_t calls{};
    calls.read = [](void *file, char *buffer, std::size_t size) {
        auto &readable = static_cast<cookie *>(file)->readable;
        const std::size_t given = std::min(readable, size);
        std::fill_n(buffer, given, '\x33');
        readable -= given;
        return static_cast<ssize_t>(given);
    };
    calls.seek = [](void *file, off64_t *position, int whence) {
        auto &now = static_cast<cookie *>(file)->position;
        now = whence == SEEK_END ? 3000000 : whence == SEEK_SET ? *position : now;
        *position = now;
        return 0;
    };
    for (const std::size_t readable : {0, 20, 1000000}) {
        cookie file{readable};
        const unique_file in(::fopencookie(&file, "r", calls));
        const unique_file out(std::tmpfile());
        deep_scan = 1;
        EXPECT_EQ(fix_pcap(in.get(), out.get(), out.get()), -3);
    }

    for (const std::uint32_t size : {20U, 60000U}) {
        std::string input = global_header + record(1700000000, 600000, size);
        const unique_file in(::fmemopen(input.data(), input.size(), "r"));
        const unique_file out(std::fopen("/dev/full", "w"));
        const unique_file log(std::tmpfile());
        errno = 0;
        EXPECT_EQ(fix_pcap(in.get(), out.get(), log.get()), -3);
        EXPECT_EQ(errno, ENOSPC);
    }
}

TEST(Pcap, ReadsHeadersWithCarriageReturns) {
    forget();
    std::mt19937 random(1); // NOLINT: the same each time
    int found[8] = {};
    const auto one_of = [&random](std::initializer_list<std::uint32_t> values) {
        return *(values.begin() + random() % values.size());
    };
    for (int i = 0; i < 20000; i++) {
        const std::string header_bytes = words(
            {one_of({0x0a0a0a0a, 0x01020a0a}), one_of({0x0a, 0x0a00, 0x00010a0a, 0x0a0d0a}),
             one_of({0x0a, 0x0a00, 0x0a0d0a}), one_of({0x0a0a, 0x0a01, 0x0a}), 0x0a0d, 0, 0, 0});
        std::string bytes;
        for (const char byte : header_bytes) {
            bytes +=
                std::string(byte == '\n' ? (random() % 3 == 0) * (1 + random() % 3) : 0, '\r') +
                byte;
        }
        bytes.resize(std::min<std::size_t>(bytes.size(), 24 + random() % 9));
        const std::uint32_t prior_ts = random() % 3 == 0 ? 0x0a0a0a0a : 0;
        packet_hdr_s header;
        const int deleted = check_header(reinterpret_cast<const unsigned char *>(bytes.data()),
                                         bytes.size(), prior_ts, header);
        ASSERT_EQ(deleted, check_header_by_trying(bytes, prior_ts))
            << testing::PrintToString(bytes);
        found[std::max(deleted, 0)]++;
    }
    EXPECT_GT(found[1], 100);
    EXPECT_GT(found[7], 10);
}
