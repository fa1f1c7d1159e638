// In-place helpers for C texts, bounded formatting, and number parsing that knows no locale.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Replaces the first `ch` of the text by its end and returns its position, or nullptr if there is
// none. Mostly cuts the newline off a line as fgets leaves it.
char *str_terminate_at(char *text, char ch);
// The same for an owned line; true if there was one.
bool str_terminate_at(std::string &text, char ch);

// Replaces every `from` by `to`.
void str_replace_char(char *text, char from, char to);
void str_replace_char(std::string &text, char from, char to);

// Replaces the first `from` by `to` and returns its position, or nullptr if there is none.
char *str_replace_next_char(char *text, char from, char to);

// The size of a buffer, its end mark included, and who formats into it.
struct text_bound {
    std::size_t size;
    const char *file;
    int line;

    // Not explicit: written as a plain number. The caller's place comes by the default arguments.
    text_bound(std::size_t buffer_size, const char *caller_file = __builtin_FILE(),
               int caller_line = __builtin_LINE())
        : size(buffer_size), file(caller_file), line(caller_line) {}
};

// printf into a text of at most bound.size - 1 bytes: format_bounded(200, "%s%s", root, folder).
// A result that does not fit ends the process: callers measure first what they did not make
// themselves.
std::string format_bounded(text_bound bound, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// printf into a text of any length.
std::string format_text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The decimal number at the start of the text, behind blanks and a sign as strtol takes them:
// "12abc" is 12, "abc" and "" are 0. Values outside the type end at its limits. No locale.
long long decimal_prefix(std::string_view text);
unsigned long long decimal_prefix_unsigned(std::string_view text);

// The whole text as a plain decimal number (digits only), or nothing.
std::optional<unsigned long long> plain_decimal(std::string_view text);
