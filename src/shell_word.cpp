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
