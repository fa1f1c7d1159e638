// A prefilter for lines that are searched for many keys: a line that lacks one of up to four
// character pairs (bigrams) of a key can't contain the key. Pure; any thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

inline constexpr std::size_t key_pairs_max = 1024; // number of hash values of pairs

struct key_filter {
    std::array<std::uint16_t, 4> pairs;
};
// The pairs of a line, by hash; the last place is one that every line has.
using line_pairs = std::array<bool, key_pairs_max + 1>;

// No key is empty.
key_filter filter_of(std::string_view key);
line_pairs pairs_of(const char *line);

// False only when the line does not contain the key. Inlined: a call would cost more.
inline bool may_contain(const line_pairs &pairs, const key_filter &filter) {
    return std::all_of(filter.pairs.begin(), filter.pairs.end(),
                       [&pairs](std::uint16_t pair) { return pairs[pair]; });
}
