// What may stand in a command line that a shell reads.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Whether the text may stand without quotes: not empty, and nothing but letters, digits and
// ". _ / : + -".
bool is_shell_word(std::string_view text);

// Whether the text stays inside double quotes and means itself there: no double quote, backtick,
// dollar sign, backslash or control character. Bytes above 127 are fine.
bool is_safe_in_double_quotes(std::string_view text);

// The same for single quotes: no single quote, no control character.
bool is_safe_in_single_quotes(std::string_view text);

// The words of a command in which a shell has nothing to do but to part them: a program and its
// arguments, with quotes around some. Nothing for anything else, as pipes, variables or commands of
// the shell's own. `grep "a b" /proc/vmstat` -> {"grep", "a b", "/proc/vmstat"}
using command_words = std::vector<std::string>;
std::optional<command_words> words_without_shell(std::string_view command);

// The same for each command of a pipeline of two or more. `ps | grep "a|b"` -> {"ps"}, {"grep",
// "a|b"}
std::optional<std::vector<command_words>> pipeline_without_shell(std::string_view command);
