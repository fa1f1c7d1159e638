// The current local time as text.
#pragma once

#include <cstddef>
#include <string>

// A row's first two columns, a session's folder, and the times in its information file.
inline constexpr const char *date_format_row = "%Y-%m-%d,%H:%M:%S";
inline constexpr const char *date_format_folder = "%Y%m%d_%H_%M_%S";
inline constexpr const char *date_format_information = "%a %b %e %H:%M:%S %Z %Y";

// The current local time through strftime into a buffer of `size` bytes. A clock that can't be read
// and a text that is empty or does not fit are logged at error level. Any thread.
void date_format_now(char *buffer, std::size_t size, const char *format);

// The same as a text of any length up to 255 bytes; empty on failure.
std::string date_format_now(const char *format);
