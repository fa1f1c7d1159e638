#include "shell_word.h"

#include <algorithm>

namespace {

bool is_control(char ch) {
    return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f;
}

bool is_word_character(char ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
           std::string_view("._/:+-").find(ch) != std::string_view::npos;
}

// Commands that the shell runs itself, and words that begin something longer.
constexpr std::string_view shell_names[] = {
    ".",        ":",      "[",       "alias", "bg",     "break", "case", "cd",       "command",
    "continue", "do",     "done",    "echo",  "elif",   "else",  "esac", "eval",     "exec",
    "exit",     "export", "false",   "fc",    "fg",     "fi",    "for",  "getopts",  "hash",
    "if",       "jobs",   "kill",    "local", "printf", "pwd",   "read", "readonly", "return",
    "set",      "shift",  "test",    "then",  "time",   "times", "trap", "true",     "type",
    "ulimit",   "umask",  "unalias", "unset", "until",  "wait",  "while"};

// A character without a meaning to the shell outside quotes.
bool is_plain(char ch) {
    return is_word_character(ch) || ch == ',' || ch == '=' || ch == '@' || ch == '%';
}

} // namespace

bool is_shell_word(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_word_character);
}

bool is_safe_in_double_quotes(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char ch) {
        return is_control(ch) || std::string_view("\"`$\\").find(ch) != std::string_view::npos;
    });
}

bool is_safe_in_single_quotes(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](char ch) { return is_control(ch) || ch == '\''; });
}

std::optional<command_words> words_without_shell(std::string_view command) {
    command_words words;
    bool in_word = false;
    while (!command.empty()) {
        const char ch = command[0];
        if (ch == ' ') {
            in_word = false;
            command.remove_prefix(1);
            continue;
        }
        if (!in_word) {
            words.emplace_back();
            in_word = true;
        }
        if (ch == '"' || ch == '\'') {
            const auto end = command.find(ch, 1);
            const auto quoted = command.substr(1, end == std::string_view::npos ? end : end - 1);
            if (end == std::string_view::npos || !(ch == '"' ? is_safe_in_double_quotes(quoted)
                                                             : is_safe_in_single_quotes(quoted))) {
                return std::nullopt;
            }
            words.back() += quoted;
            command.remove_prefix(end + 1);
        } else if (is_plain(ch)) {
            words.back() += ch;
            command.remove_prefix(1);
        } else {
            return std::nullopt;
        }
    }
    const bool is_program = !words.empty() && !words[0].empty() &&
                            words[0].find('=') == std::string::npos &&
                            std::find(std::begin(shell_names), std::end(shell_names), words[0]) ==
                                std::end(shell_names);
    return is_program ? std::optional(std::move(words)) : std::nullopt;
}

std::optional<std::vector<command_words>> pipeline_without_shell(std::string_view command) {
    std::vector<command_words> parts;
    char quote = '\0'; // within such a pair
    for (std::size_t begin = 0, at = 0; at <= command.size(); ++at) {
        const char ch = at < command.size() ? command[at] : '\0';
        if (at == command.size() || (ch == '|' && quote == '\0')) {
            auto words = words_without_shell(command.substr(begin, at - begin));
            if (!words) {
                return std::nullopt;
            }
            parts.push_back(std::move(*words));
            begin = at + 1;
        } else if (ch == quote) {
            quote = '\0';
        } else if (quote == '\0' && (ch == '"' || ch == '\'')) {
            quote = ch;
        }
    }
    return parts.size() > 1 ? std::optional(std::move(parts)) : std::nullopt;
}
