// Repair of classic capture files: what a capture tool leaves when it is killed, or what an
// ASCII-mode transfer made of a capture. Main thread only (state in pcapfix).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// In a file 16 bytes in the file's byte order, followed by incl_len bytes of data; in memory the
// values in the host's order.
struct packet_hdr_s {
    std::uint32_t ts_sec;
    std::uint32_t ts_usec;  // nanoseconds when `nanoseconds` is set
    std::uint32_t incl_len; // bytes stored
    std::uint32_t orig_len; // bytes on the wire
};

// 0 if the values can be a record's, else the code of the first check that fails:
// incl_len below 10 (-1), orig_len below 10 (-2), incl_len (-3) or orig_len (-4) above 65,535,
// incl_len above orig_len (-5), more than a day after (-6) or before (-7) the previous record, a
// fraction above a second in microseconds (-8) or nanoseconds (-9). prior_ts is the previous
// record's seconds, 0 for none.
int is_plausible(const packet_hdr_s &header, std::uint32_t prior_ts);

// Looks for a record header at the start of `size` bytes (16 or more; the first 32 count). 0: there
// is one; n > 0: there is one after deleting n carriage returns before line feeds (needs 26 bytes);
// -1: none. `header` gets the header found, or on -1 the first 16 bytes as they are.
int check_header(const unsigned char *bytes, std::size_t size, std::uint32_t prior_ts,
                 packet_hdr_s &header);

// Writes a repaired copy of the capture `in` to `out` and a line to `log` for everything checked
// and corrected. The number of corrections, 0 for an intact file, or:
//   -1  no first record to align to
//   -2  too small for a global header, or not a single record
//   -3  `in` could not be read up to the size it had at the start, or `out` not written; errno
//   tells
// After a negative result `out` holds what could be written so far. `dropped_records`, if given,
// tells whether more than an unfinished end was left out, whatever the result. Takes any seekable
// file; time grows linearly with its size, memory is half a megabyte. `out` is flushed, none of the
// files is closed.
int fix_pcap(std::FILE *in, std::FILE *out, std::FILE *log, bool *dropped_records = nullptr);
