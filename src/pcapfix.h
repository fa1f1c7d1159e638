// State and byte-order helpers that the capture-file repairers share. Main thread only.
#pragma once

#include <cstdint>

// Written by the repairer as it reads a global header. Only ever set: a file in the other byte
// order or with nanoseconds marks all later repairs of the process.
extern int swapped;     // the file's byte order is not the host's
extern int nanoseconds; // packet times have a resolution of nanoseconds

// Settings; the classic repairer sets verbose to 1 at its start, nobody writes the others.
extern int verbose;        // above 1: failed plausibility checks are printed to standard output
extern int deep_scan;      // 1: search the whole file for the first packet
extern int data_link_type; // link type to force; -1: keep the file's
extern int pcapng;

// Between the file's byte order and the host's; inline as every byte of garbage is tested with
// them.
inline std::uint16_t conshort(std::uint16_t value) {
    return swapped != 0 ? __builtin_bswap16(value) : value;
}
inline std::uint32_t conint(std::uint32_t value) {
    return swapped != 0 ? __builtin_bswap32(value) : value;
}

// Prints "[*] Progress:  12.50 %" to standard output.
void print_progress(std::uint64_t position, std::uint64_t total);
