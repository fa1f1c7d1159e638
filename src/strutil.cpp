#include "strutil.h"

#include "log.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>

namespace {

std::string vformat(const char *format, va_list arguments, int &length) {
    va_list again;
    va_copy(again, arguments);
    length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

// Blanks and one sign, as the C library's number readers skip them.
std::string_view skip_blanks_and_sign(std::string_view text, bool &negative) {
    const auto start = text.find_first_not_of(" \t\n\v\f\r");
    text.remove_prefix(start == std::string_view::npos ? text.size() : start);
    negative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        text.remove_prefix(1);
    }
    return text;
}

unsigned long long digits_saturating(std::string_view digits) {
    unsigned long long value = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<decltype(value)>::max()
                                                       : value;
}

} // namespace

char *str_terminate_at(char *text, char ch) {
    char *position = std::strchr(text, ch);
    if (position != nullptr) {
        *position = '\0';
    }
    return position;
}

bool str_terminate_at(std::string &text, char ch) {
    const auto position = text.find(ch);
    if (position == std::string::npos) {
        return false;
    }
    text.resize(position);
    return true;
}

void str_replace_char(char *text, char from, char to) {
    std::replace(text, text + std::strlen(text), from, to);
}

void str_replace_char(std::string &text, char from, char to) {
    std::replace(text.begin(), text.end(), from, to);
}

char *str_replace_next_char(char *text, char from, char to) {
    char *position = std::strchr(text, from);
    if (position != nullptr) {
        *position = to;
    }
    return position;
}

std::string format_bounded(text_bound bound, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int length = 0;
    std::string text = vformat(format, arguments, length);
    va_end(arguments);
    if (length < 0 || static_cast<std::size_t>(length) >= bound.size) {
        log_fatal_at(log_module_of(bound.file), bound.line,
                     "snprintf for %s returned %d, expected between 0 and %zu", format, length,
                     bound.size);
    }
    return text;
}

std::string format_text(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int length = 0;
    std::string text = vformat(format, arguments, length);
    va_end(arguments);
    return text;
}

long long decimal_prefix(std::string_view text) {
    using limits = std::numeric_limits<long long>;
    bool negative = false;
    const unsigned long long magnitude = digits_saturating(skip_blanks_and_sign(text, negative));
    if (magnitude > static_cast<unsigned long long>(limits::max())) {
        return negative ? limits::min() : limits::max();
    }
    const auto value = static_cast<long long>(magnitude);
    return negative ? -value : value;
}

unsigned long long decimal_prefix_unsigned(std::string_view text) {
    bool negative = false;
    const unsigned long long magnitude = digits_saturating(skip_blanks_and_sign(text, negative));
    return negative ? 0 : magnitude;
}

std::optional<unsigned long long> plain_decimal(std::string_view text) {
    unsigned long long value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}
