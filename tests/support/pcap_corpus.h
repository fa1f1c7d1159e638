// Captures, whole and damaged, with what their repair must give. The expectation is derived from
// what was put where: it knows at which places a header can be read, and never looks for one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct pcap_case {
    std::string name{};
    std::string input{};
    std::string output{}; // expected, like all below
    std::string log{};
    int result = 0;
    bool dropped = false;
};

// Every kind of damage in each of the four formats; some 3,000 cases, of which some hold 1.5 MB.
std::vector<pcap_case> pcap_corpus();

// The result that check_header must give for 16 to 32 bytes in the host's (little-endian) order
// with times in microseconds, by trying every order of deletions.
int check_header_by_trying(const std::string &bytes, std::uint32_t prior_ts);
