// Captures, whole and damaged, with what is known of their repair.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct pcap_case {
    std::string name{};
    bool big_endian = false;
    std::string input{};
    bool listed = false; // the repair must give:
    int result = 0;
    bool dropped = false;
    std::string summary{};
    std::vector<std::string> safe{}; // whole records that no damage around them may cost
};

// A capture of the records that stand in the text: "60" is one of 60 bytes, "60+5" and "60-5" one
// whose lengths are wrong by that, "60:80/90" one with these lengths, "!60" one with a length that
// none can have, "~60" garbage, "%60" takes as many bytes off the end. "T60" moves the time on by
// so many seconds, "Z60" makes it that and no fraction. "L60" is a record of 100 bytes with so many
// line feeds, "A" a transfer of all so far in ASCII mode.
pcap_case pcap_capture(const std::string &text, bool big_endian = false, bool nano = false);

// A table of damages in each of the four formats, with their outcomes, and sweeps over lengths and
// random damages without; some hold 1.5 MB.
std::vector<pcap_case> pcap_corpus();

// The lengths of the records behind the global header: "60 70/80" for 60 bytes and 70 of 80;
// "broken" if the last is not whole.
std::string pcap_summary(const std::string &file, bool big_endian);

// The result that check_header must give for 16 to 32 bytes in the host's (little-endian) order
// with times in microseconds, by trying every order of deletions.
int check_header_by_trying(const std::string &bytes, std::uint32_t prior_ts);
