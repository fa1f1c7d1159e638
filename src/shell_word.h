// What may stand in a command line that a shell reads.
#pragma once

#include <string_view>

// Whether the text may stand without quotes: not empty, and nothing but letters, digits and
// ". _ / : + -".
bool is_shell_word(std::string_view text);

// Whether the text stays inside double quotes and means itself there: no double quote, backtick,
// dollar sign, backslash or control character. Bytes above 127 are fine.
bool is_safe_in_double_quotes(std::string_view text);

// The same for single quotes: no single quote, no control character.
bool is_safe_in_single_quotes(std::string_view text);
