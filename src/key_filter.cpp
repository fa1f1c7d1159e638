#include "key_filter.h"

namespace {

constexpr std::uint16_t any = key_pairs_max; // of a key of one character

std::uint16_t pair_at(const char *text) {
    return static_cast<std::uint16_t>(
        (static_cast<unsigned char>(text[0]) * 31U + static_cast<unsigned char>(text[1])) %
        key_pairs_max);
}

} // namespace

key_filter filter_of(std::string_view key) {
    key_filter filter{};
    const std::size_t count = key.size() - 1;
    for (std::size_t i = 0; i < filter.pairs.size(); ++i) {
        filter.pairs[i] = count == 0 ? any : pair_at(&key[i * count / filter.pairs.size()]);
    }
    return filter;
}

line_pairs pairs_of(const char *line) {
    line_pairs pairs{};
    pairs[any] = true;
    for (; line[0] != '\0'; ++line) {
        pairs[pair_at(line)] = true; // the last pair holds the NUL and matches no key
    }
    return pairs;
}
