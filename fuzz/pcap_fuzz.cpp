// Repairs whatever comes: the first byte chooses settings, the rest is the capture. Fails when
// memory or arithmetic goes wrong, when the output of a good repair is no capture, and when the
// work outgrows its bound: 3,000 calls per byte, where 2 to 100 are usual and up to 1,600 were
// reached with carriage returns, line feeds and zeros arranged for it. With PCAP_FUZZ_WORK set, the
// highest work per byte is printed as it is found.
#include "handle.h"
#include "pcap.h"
#include "pcap_corpus.h"
#include "pcapfix.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::uint64_t calls = 0;

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

} // namespace

// Entered by every function of the repairer; what loops over the file calls one for every 64 bytes.
extern "C" __attribute__((no_instrument_function)) void __cyg_profile_func_enter(void *, void *) {
    calls++;
}
extern "C" __attribute__((no_instrument_function)) void __cyg_profile_func_exit(void *, void *) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const int options = data[0];
    const std::string input(reinterpret_cast<const char *>(data) + 1, size - 1);
    swapped = nanoseconds = 0;
    if ((options & 16) != 0 && input.size() >= 16) { // takes far more time than the repair
        const std::string window = input.substr(input.size() / 2 - 8, 32);
        const std::uint32_t prior_ts = data[0] * 0x01010101U;
        packet_hdr_s header;
        require(check_header(reinterpret_cast<const unsigned char *>(window.data()), window.size(),
                             prior_ts, header) == check_header_by_trying(window, prior_ts),
                "check_header differs from trying all deletions");
    }

    deep_scan = options & 1;
    data_link_type = (options & 2) != 0 ? 7 : -1;
    swapped = options >> 2 & 1;
    nanoseconds = options >> 3 & 1;
    char *text = nullptr;
    std::size_t length = 0;
    const unique_file in(::fmemopen(const_cast<char *>(input.data()), input.size(), "r"));
    unique_file out(::open_memstream(&text, &length));
    const unique_file log(std::fopen("/dev/null", "w"));
    calls = 0;
    const int result = fix_pcap(in.get(), out.get(), log.get());
    out.reset();
    const std::string output(text, length);
    std::free(text); // NOLINT(cppcoreguidelines-no-malloc): open_memstream's

    static const bool show_work = std::getenv("PCAP_FUZZ_WORK") != nullptr;
    static double highest = 0;
    const double work = static_cast<double>(calls) / static_cast<double>(input.size());
    if (show_work && input.size() >= 200 && work > highest) {
        highest = work;
        std::fprintf(stderr, "%.1f calls per byte\n", highest);
    }
    require(calls <= 2000 + 3000 * input.size(), "more work than 3,000 calls per byte");
    require(result >= -2, "a read failed that can't");
    require(output.size() <= input.size() + 24, "output longer than the input");
    if (result >= 0) {
        std::size_t at = 24;
        while (at + 16 <= output.size()) {
            std::uint32_t stored = 0;
            std::memcpy(&stored, output.data() + at + 8, sizeof stored);
            at += 16 + std::size_t{conint(stored)};
        }
        require(at == output.size(), "output ends inside a packet");
    }
    return 0;
}
