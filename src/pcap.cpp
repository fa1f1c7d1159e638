#include "pcap.h"

#include "loop.h"
#include "pcapfix.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>

namespace {

constexpr std::uint32_t plain_magic = 0xa1b2c3d4;
constexpr std::uint32_t max_packet = 65535;
constexpr std::uint32_t day = 86400;
constexpr std::size_t global_size = 24;
constexpr std::size_t header_size = 16;
constexpr std::size_t look_ahead = 32;

// The record after a damaged one is searched from 17 to this many bytes after its position.
constexpr std::size_t search_range = header_size + max_packet;

// Upper bound of what one step of the walk reads from its position on: 7 carriage returns, the
// longest record, the look-ahead, and 31 positions more.
constexpr std::size_t reach = 65536 + 128;
constexpr std::size_t window_size = 512UL * 1024;
static_assert(search_range + look_ahead <= reach && 7 + 48 + max_packet + look_ahead <= reach);

// In the file's byte order.
struct global_hdr_s {
    std::uint32_t magic_number;
    std::uint16_t version_major;
    std::uint16_t version_minor;
    std::int32_t thiszone;
    std::uint32_t sigfigs;
    std::uint32_t snaplen;
    std::uint32_t network;
};
static_assert(sizeof(global_hdr_s) == global_size && sizeof(packet_hdr_s) == header_size);

// One repair, from fix_pcap's start to its end. All positions are the input's.
struct repair_s {
    std::FILE *in;
    std::FILE *out;
    std::FILE *log;
    std::uint64_t filesize = 0;
    std::uint64_t pos = 0;

    // The input's bytes from window_start to window_end. Not a mapping: a file that is cut
    // meanwhile would end the process.
    std::unique_ptr<unsigned char[]> window = nullptr;
    std::size_t window_capacity = 0;
    std::uint64_t window_start = 0;
    std::uint64_t window_end = 0;

    // Bytes of the window that go to the output as they are: intact neighbours are written at once.
    std::uint64_t verbatim_start = 0;
    std::uint64_t verbatim_end = 0;
    bool write_failed = false;

    std::uint64_t count = 1; // number of the next record; "first record" means 1
    std::uint16_t hdr_integ = 0;
    std::uint64_t corrupted = 0;
    std::uint64_t ascii = 0;
    std::uint32_t last_correct_ts_sec = 0;
    std::uint32_t last_correct_ts_usec = 0;
    bool dropped = false;
};

struct found_header_s {
    std::uint64_t at;
    std::uint32_t carriage_returns; // inside it
    packet_hdr_s header;
};

std::uint32_t load_int(const unsigned char *bytes) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return conint(value);
}

packet_hdr_s load_header(const unsigned char *bytes) {
    return {load_int(bytes), load_int(bytes + 4), load_int(bytes + 8), load_int(bytes + 12)};
}

bool far_after(std::uint32_t ts_sec, std::uint32_t prior_ts) {
    return prior_ts != 0 && ts_sec > prior_ts + day; // wraps as the field does
}

bool far_before(std::uint32_t ts_sec, std::uint32_t prior_ts) {
    return prior_ts >= day && ts_sec < prior_ts - day;
}

bool bad_fraction(std::uint32_t ts_usec) {
    return ts_usec > (nanoseconds != 0 ? 1000000000U : 1000000U);
}

// Whether no header is possible any more when the first `settled` bytes are final.
bool hopeless(const packet_hdr_s &header, std::size_t settled, std::uint32_t prior_ts) {
    return (settled >= 4 &&
            (far_after(header.ts_sec, prior_ts) || far_before(header.ts_sec, prior_ts))) ||
           (settled >= 8 && bad_fraction(header.ts_usec)) ||
           (settled >= 12 && (header.incl_len < 10 || header.incl_len > max_packet));
}

// Both lengths fit 16 bits, so their upper halves are zero in every header: the offset of that of
// incl_len; that of orig_len is 4 bytes further.
std::size_t upper_half() {
    return (std::endian::native == std::endian::little) == (swapped == 0) ? 10 : 8;
}

// Whether deleting up to `deletions` bytes can move zeros to both offsets.
bool zeros_in_reach(const unsigned char *bytes, std::size_t deletions) {
    const unsigned char *upper = bytes + upper_half();
    const unsigned char *const last = upper + deletions;
    while (upper <= last && (upper[0] | upper[1]) != 0) {
        upper++;
    }
    while (upper <= last && (upper[4] | upper[5]) != 0) {
        upper++;
    }
    return upper <= last;
}

// The recursion of check_header, for at most 32 bytes; `header` is only written on success. The
// order of deletions does not matter: deleting from left to right, with further ones searched from
// index `from` on, tries each combination once.
int check_copy(const unsigned char *bytes, std::size_t size, std::uint32_t prior_ts,
               std::size_t from, packet_hdr_s &header) {
    const packet_hdr_s candidate = load_header(bytes);
    const int error = is_plausible(candidate, prior_ts);
    if (error == 0) {
        header = candidate;
        return 0;
    }
    if (verbose > 1) {
        std::printf("[-] Header plausibility check failed with error code %d\n", error);
    }
    if (size < 26 || !zeros_in_reach(bytes, size - 25)) {
        return -1;
    }
    // Bytes that no further deletion moves; the carriage return before `from` may still go.
    std::size_t settled = from - 1;
    while (settled > 0 && bytes[settled - 1] == '\r') {
        settled--;
    }
    for (std::size_t i = from; i <= 16 && !hopeless(candidate, settled, prior_ts); i++) {
        if (bytes[i - 1] != '\r') {
            settled = i;
        } else if (bytes[i] == '\n') {
            unsigned char copy[look_ahead];
            std::memcpy(copy, bytes, i - 1);
            std::memcpy(copy + i - 1, bytes + i, size - i);
            const std::size_t next = std::max<std::size_t>(i - 1, 1);
            const int deleted = check_copy(copy, size - 1, prior_ts, next, header);
            if (deleted != -1) {
                return deleted + 1;
            }
        }
    }
    return -1;
}

const unsigned char *at(const repair_s &r, std::uint64_t position) {
    return r.window.get() + (position - r.window_start);
}

void write_out(repair_s &r, const void *bytes, std::size_t size) {
    if (!r.write_failed && size > 0 && std::fwrite(bytes, 1, size, r.out) != size) {
        r.write_failed = true;
    }
}

void flush_verbatim(repair_s &r) {
    write_out(r, at(r, r.verbatim_start),
              static_cast<std::size_t>(r.verbatim_end - r.verbatim_start));
    r.verbatim_start = r.verbatim_end = r.window_start;
}

// Brings all that a step at r.pos looks at into the window; false if it can't be read.
bool load_window(repair_s &r) {
    const std::uint64_t wanted = std::min<std::uint64_t>(r.filesize, r.pos + reach);
    if (r.window_end >= wanted) {
        return true;
    }
    flush_verbatim(r);
    const auto kept = static_cast<std::size_t>(r.window_end - r.pos);
    std::memmove(r.window.get(), at(r, r.pos), kept);
    r.window_start = r.verbatim_start = r.verbatim_end = r.pos;
    const std::uint64_t rest = std::min<std::uint64_t>(r.window_capacity, r.filesize - r.pos);
    const auto room = static_cast<std::size_t>(rest) - kept;
    loop_run_due(); // a repair may take minutes
    r.window_end += std::fread(r.window.get() + kept, 1, room, r.in);
    return r.window_end >= wanted;
}

void log_packet(const repair_s &r, const char *what, std::uint64_t number, std::uint64_t position,
                const packet_hdr_s &h, const char *end = ".\n") {
    std::fprintf(r.log,
                 "%s Packet #%" PRIu64 " at position %" PRIu64 " (%" PRIu32 " | %" PRIu32
                 " | %" PRIu32 " | %" PRIu32 ")%s",
                 what, number, position, h.ts_sec, h.ts_usec, h.incl_len, h.orig_len, end);
}

// Writes a record with its data at `data`. `intact`: the input holds exactly these bytes.
void write_packet(repair_s &r, const packet_hdr_s &header, std::uint64_t data, bool intact) {
    const std::uint64_t end = data + header.incl_len;
    if (intact && r.verbatim_end == data - header_size) {
        r.verbatim_end = end;
    } else {
        flush_verbatim(r);
        if (intact) {
            r.verbatim_start = data - header_size;
        } else {
            const std::uint32_t stored[] = {conint(header.ts_sec), conint(header.ts_usec),
                                            conint(header.incl_len), conint(header.orig_len)};
            write_out(r, stored, sizeof stored);
            r.verbatim_start = data;
        }
        r.verbatim_end = end;
    }
    r.last_correct_ts_sec = header.ts_sec;
    r.last_correct_ts_usec = header.ts_usec;
}

// Whether a header may start at one of `count` positions; whether one of them holds a carriage
// return before a line feed. Both loops are vectorised by compilers.
bool may_hold_header(const unsigned char *bytes, std::size_t count) {
    const unsigned char *const upper = bytes + upper_half();
    unsigned char any = 0;
    for (std::size_t i = 0; i < count; i++) {
        any |= (upper[i] | upper[i + 1] | upper[i + 4] | upper[i + 5]) == 0;
    }
    return any != 0;
}
bool holds_line_end(const unsigned char *bytes, std::size_t count) {
    unsigned char any = 0;
    for (std::size_t i = 0; i < count; i++) {
        any |= ((bytes[i] ^ '\r') | (bytes[i + 1] ^ '\n')) == 0;
    }
    return any != 0;
}

// The first header that starts in [from, to), with 32 bytes of it in the file. The window holds the
// range. Most garbage is skipped in blocks.
std::optional<found_header_s> find_header(const repair_s &r, std::uint64_t from, std::uint64_t to) {
    constexpr std::uint64_t block = 64;
    to = std::min(to, r.filesize - look_ahead + 1);
    for (std::uint64_t start = from; start < to; start += block) {
        const std::uint64_t end = std::min(to, start + block);
        const auto count = static_cast<std::size_t>(end - start);
        const bool line_ends = holds_line_end(at(r, start), count + 15);
        if (!line_ends && !may_hold_header(at(r, start), count)) {
            continue;
        }
        for (std::uint64_t position = start; position < end; position++) {
            packet_hdr_s header = load_header(at(r, position));
            int deleted = is_plausible(header, r.last_correct_ts_sec) == 0 ? 0 : -1;
            if (deleted != 0 && line_ends) {
                deleted = check_header(at(r, position), look_ahead, r.last_correct_ts_sec, header);
            }
            if (deleted >= 0) {
                return found_header_s{position, static_cast<std::uint32_t>(deleted), header};
            }
        }
    }
    return std::nullopt;
}

// A first record's time is put just before the next one's.
void set_time_before(packet_hdr_s &header, const packet_hdr_s &next) {
    header.ts_sec = header.ts_usec = 0;
    if (next.ts_usec != 0) {
        header.ts_sec = next.ts_sec;
        header.ts_usec = next.ts_usec - 1;
    } else if (next.ts_sec != 0) {
        header.ts_sec = next.ts_sec - 1;
        header.ts_usec = 999999;
    }
}

// Logs a field of the global header and counts the correction if it is not good.
bool field_is_good(repair_s &r, bool good, const char *name, std::uint32_t value) {
    std::fprintf(r.log, "[%c] %s: %" PRIu32 "\n", good ? '+' : '-', name, value);
    r.hdr_integ = static_cast<std::uint16_t>(r.hdr_integ + (good ? 0 : 1));
    return good;
}

void check_magic(repair_s &r, global_hdr_s &header) {
    const char *kind = "";
    const std::uint32_t magic = header.magic_number;
    switch (magic) {
    case plain_magic:
        break;
    case 0xd4c3b2a1:
        swapped = 1;
        kind = " (SWAPPED)";
        break;
    case 0xa1b23c4d:
        nanoseconds = 1;
        kind = " (NANOSECONDS)";
        break;
    case 0x4d3cb2a1:
        swapped = nanoseconds = 1;
        kind = " (SWAPPED - NANOSECONDS)";
        break;
    default:
        std::fprintf(r.log, "[-] Magic number: 0x%" PRIx32 "\n", magic);
        header.magic_number = conint(plain_magic);
        r.hdr_integ++;
        return;
    }
    std::fprintf(r.log, "[+] Magic number: 0x%" PRIx32 "%s\n", magic, kind);
}

// Checks the header at the start of the file, writes it and leaves r.pos where the records start.
void fix_global_header(repair_s &r) {
    global_hdr_s header;
    std::memcpy(&header, at(r, 0), sizeof header);
    check_magic(r, header);

    const std::uint16_t major = conshort(header.version_major);
    if (!field_is_good(r, major == 2, "Major version number", major)) {
        header.version_major = conshort(2);
    }
    const std::uint16_t minor = conshort(header.version_minor);
    if (!field_is_good(r, minor == 4, "Minor version number", minor)) {
        header.version_minor = conshort(4);
    }
    // Only the first two bytes are checked; the others pass as they are.
    std::uint16_t zone = 0;
    std::memcpy(&zone, &header.thiszone, sizeof zone);
    zone = conshort(zone);
    if (!field_is_good(r, zone == 0, "GTM to local correction", zone)) {
        header.thiszone = 0;
    }
    const std::uint32_t sigfigs = conint(header.sigfigs);
    if (!field_is_good(r, sigfigs == 0, "Accuracy of timestamps", sigfigs)) {
        header.sigfigs = 0;
    }
    const std::uint32_t snaplen = conint(header.snaplen);
    if (!field_is_good(r, snaplen != 0 && snaplen <= max_packet, "Max packet length", snaplen)) {
        header.snaplen = conint(max_packet);
    }
    const std::uint32_t network = conint(header.network);
    if (!field_is_good(r, network < 252, "Data link type", network)) {
        header.network = conint(1);
    }
    if (data_link_type != -1) {
        std::fprintf(r.log, "[+] Changing data link type to %d.\n", data_link_type);
        header.network = conint(static_cast<std::uint32_t>(data_link_type));
        r.hdr_integ++;
    }

    r.pos = global_size;
    if (r.hdr_integ == 0) {
        std::fputs("[+] The global pcap header seems to be fine!\n", r.log);
    } else if (r.hdr_integ <= 3) {
        std::fputs("[-] The global pcap header seems to be corrupt! ==> CORRECTED\n", r.log);
    } else {
        std::fputs("[-] The global pcap header seems to be missing ==> CORRECTED!\n", r.log);
        r.pos = 0;
        header.snaplen = conint(max_packet);
        header.network =
            conint(data_link_type != -1 ? static_cast<std::uint32_t>(data_link_type) : 1);
    }
    write_out(r, &header, sizeof header);
}

// A step of the walk at a plausible header at r.pos, after deleting `deleted` carriage returns.
void copy_packet(repair_s &r, packet_hdr_s header, std::uint64_t deleted) {
    const std::uint64_t p = r.pos + deleted;
    const std::uint64_t data = p + header_size;
    const std::uint64_t end = data + header.incl_len;
    bool intact = deleted == 0;

    if (end > r.filesize || (end < r.filesize && r.filesize - end < header_size)) {
        std::fprintf(r.log,
                     "[-] LAST PACKET MISMATCH (%" PRIu32 " | %" PRIu32 " | %" PRIu32 " | %" PRIu32
                     ")\n",
                     header.ts_sec, header.ts_usec, header.incl_len, header.orig_len);
        header.incl_len = static_cast<std::uint32_t>(r.filesize - data);
        header.orig_len = std::max(header.orig_len, header.incl_len);
        r.corrupted++;
        intact = false;
        log_packet(r, "[+] CORRECTED", r.count, p, header);
    } else if (r.filesize - end >= look_ahead) {
        packet_hdr_s next;
        if (check_header(at(r, end), look_ahead, header.ts_sec, next) == -1) {
            // Its length may be wrong.
            if (const auto found = find_header(r, data + 1, end + look_ahead)) {
                log_packet(r, "[-] FOUND OVERLAPPING data of", r.count + 1, found->at,
                           found->header);
                header.incl_len =
                    static_cast<std::uint32_t>(found->at - data) + found->carriage_returns;
                header.orig_len = header.incl_len;
                if (r.count == 1) {
                    set_time_before(header, found->header);
                }
                r.corrupted++;
                r.ascii++;
                intact = false;
                log_packet(r, "[+] CORRECTED", r.count, p, header);
            }
        }
    }
    write_packet(r, header, data, intact);
    r.pos = data + header.incl_len;
    r.count++;
}

// Moves r.pos to the first header anywhere behind the range that was searched from it.
int find_first_packet(repair_s &r) {
    for (std::uint64_t range = search_range + 1;; range = reach - look_ahead) {
        r.pos += range;
        if (r.pos + look_ahead > r.filesize) {
            std::fputs("[-] Reached EOF without finding more packets!\n", r.log);
            return -1;
        }
        if (!load_window(r)) {
            return -3;
        }
        if (const auto found = find_header(r, r.pos, r.pos + reach - look_ahead)) {
            r.pos = found->at;
            log_packet(r, "[+] (DEEP SCAN) FOUND FIRST", 1, found->at, found->header);
            return 0;
        }
    }
}

// A step of the walk without a header at r.pos: the bytes before the next one become a record. 0,
// or the negative result of the repair.
int rebuild_packet(repair_s &r) {
    const std::uint64_t data = r.pos + header_size;
    const bool first = r.count == 1;
    log_packet(r, "[-] CORRUPTED", r.count, r.pos, load_header(at(r, r.pos)));

    const auto next = find_header(r, r.pos + header_size + 1, r.pos + search_range + 1);
    const bool last = !next && r.filesize - r.pos < search_range + look_ahead;
    if (!next && !last) {
        r.dropped = true;
        if (first && deep_scan == 1) {
            return find_first_packet(r);
        }
        if (first) {
            std::fputs("[-] Cannot align corrupted packet! \n"
                       "[-] Reached EOF without finding more packets!\n",
                       r.log);
            return -1;
        }
        std::fputs("[-] No next packet found within max packet range --> SKIPPING!\n", r.log);
        r.pos += search_range + look_ahead;
        return 0;
    }

    packet_hdr_s header{};
    header.incl_len = static_cast<std::uint32_t>((next ? next->at : r.filesize) - data);
    header.orig_len = header.incl_len;
    if (!first) {
        header.ts_sec = r.last_correct_ts_sec;
        header.ts_usec = r.last_correct_ts_usec + 1;
    } else if (next) {
        set_time_before(header, next->header);
    }
    if (last) {
        std::fputs("[*] End of file reached. Aligning last packet.\n", r.log);
        log_packet(r, "[+] CORRECTED LAST", r.count, r.pos, header);
        write_packet(r, header, data, false);
    } else {
        log_packet(r, "[+] FOUND NEXT", r.count + 1, next->at, next->header);
        if (is_plausible(header, r.last_correct_ts_sec) == 0) {
            log_packet(r, "[+] CORRECTED", r.count, r.pos, header);
            write_packet(r, header, data, false);
        } else {
            std::fprintf(
                r.log, "[-] Packet #%" PRIu64 " at position %" PRIu64 " is invalid ==> SKIPPING.\n",
                r.count, r.pos);
            r.dropped = true;
        }
    }
    r.corrupted++;
    r.count++;
    r.pos = data + header.incl_len;
    return 0;
}

// The walk over the records to the end of the file: 0 or the negative result of the repair. Every
// step ends at or before the file's end and at least 17 bytes further.
int fix_packets(repair_s &r) {
    while (r.pos < r.filesize) {
        if (r.filesize - r.pos < look_ahead) {
            std::fprintf(r.log,
                         "[-] Not enough bytes left in file ==> SKIPPING %" PRIu64 " bytes.\n",
                         r.filesize - r.pos);
            r.corrupted++;
            if (r.count == 1) {
                std::fputs("[-] No packet has been found!\n", r.log);
                return -2;
            }
            break;
        }
        if (!load_window(r)) {
            return -3;
        }
        packet_hdr_s header;
        const int deleted = check_header(at(r, r.pos), look_ahead, r.last_correct_ts_sec, header);
        int result = 0;
        if (deleted >= 0) {
            copy_packet(r, header, static_cast<std::uint64_t>(deleted));
        } else {
            result = rebuild_packet(r);
        }
        if (r.write_failed) {
            return -3;
        }
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

// fix_pcap but for the end of the output. The number of corrections, or the negative result.
int fix_file(repair_s &r) {
    if (::fseeko(r.in, 0, SEEK_END) != 0) {
        return -3;
    }
    const off_t size = ::ftello(r.in);
    if (size < 0 || ::fseeko(r.in, 0, SEEK_SET) != 0) {
        return -3;
    }
    r.filesize = static_cast<std::uint64_t>(size);
    if (r.filesize < global_size) {
        std::fputs("[-] File is too small to read pcap global header.\n", r.log);
        return -2;
    }
    std::fputs("[*] Analyzing Global Header...\n", r.log);
    r.window_capacity = static_cast<std::size_t>(std::min<std::uint64_t>(window_size, r.filesize));
    r.window = std::make_unique_for_overwrite<unsigned char[]>(r.window_capacity);
    if (!load_window(r)) {
        return -3;
    }
    fix_global_header(r);
    std::fputs("[*] Analyzing packets...\n", r.log);

    if (const int result = fix_packets(r); result != 0) {
        return result;
    }
    const std::uint64_t corrections = r.hdr_integ + r.corrupted;
    if (corrections == 0) {
        return 0;
    }
    std::fprintf(r.log, "[*] Wrote %" PRIu64 " packets to file.\n", r.count - 1);
    if (r.ascii != 0) {
        std::fputs("[!] This corruption seems to be a result of an ascii-mode transferred pcap "
                   "file via FTP.\n"
                   "[!] The pcap structure of those files can be repaired, but the data inside "
                   "might still be corrupted!\n",
                   r.log);
    }
    return static_cast<int>(std::min<std::uint64_t>(corrections, INT_MAX));
}

} // namespace

int is_plausible(const packet_hdr_s &header, std::uint32_t prior_ts) {
    if (header.incl_len < 10) {
        return -1;
    }
    if (header.orig_len < 10) {
        return -2;
    }
    if (header.incl_len > max_packet) {
        return -3;
    }
    if (header.orig_len > max_packet) {
        return -4;
    }
    if (header.incl_len > header.orig_len) {
        return -5;
    }
    if (far_after(header.ts_sec, prior_ts)) {
        return -6;
    }
    if (far_before(header.ts_sec, prior_ts)) {
        return -7;
    }
    if (bad_fraction(header.ts_usec)) {
        return nanoseconds != 0 ? -9 : -8;
    }
    return 0;
}

int check_header(const unsigned char *bytes, std::size_t size, std::uint32_t prior_ts,
                 packet_hdr_s &header) {
    header = load_header(bytes);
    return check_copy(bytes, std::min(size, look_ahead), prior_ts, 1, header);
}

int fix_pcap(std::FILE *in, std::FILE *out, std::FILE *log, bool *dropped_records) {
    verbose = 1;
    repair_s r{in, out, log};
    int result = fix_file(r);
    flush_verbatim(r);
    if (r.write_failed || std::fflush(out) != 0) {
        result = -3;
    }
    if (dropped_records != nullptr) {
        *dropped_records = r.dropped;
    }
    return result;
}
