#include "pcapfix.h"

#include <cstdio>

int swapped = 0;
int nanoseconds = 0;
int verbose = 0;
int deep_scan = 0;
int data_link_type = -1;
int pcapng = 0;

void print_progress(std::uint64_t position, std::uint64_t total) {
    const float done = static_cast<float>(position) / static_cast<float>(total);
    std::printf("[*] Progress: %6.02f %%\n", static_cast<double>(done * 100));
}
