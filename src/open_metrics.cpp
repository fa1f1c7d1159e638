#include "open_metrics.h"

#include "strutil.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <glib.h>

namespace {

constexpr std::size_t typical_size = 32768;

const char *type_name(metric_type type) {
    switch (type) {
    case metric_type::gauge:
        return "gauge";
    case metric_type::counter:
        return "counter";
    case metric_type::info:
        return "info";
    case metric_type::unknown:
        break;
    }
    return "unknown";
}

std::string_view suffix_of(metric_type type) {
    return type == metric_type::counter ? "_total" : type == metric_type::info ? "_info" : "";
}

template <typename Number> std::string_view print(std::array<char, 32> &buffer, Number value) {
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
    return {buffer.data(), static_cast<std::size_t>(end - buffer.data())};
}

bool is_number(std::string_view text) {
    double value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() &&
           std::isfinite(value);
}

// Fast path for labels without special characters.
void append_label(std::string &text, std::string_view value) {
    const bool is_plain = std::all_of(value.begin(), value.end(), [](char ch) {
        return ch >= ' ' && ch < 0x7f && ch != '"' && ch != '\\';
    });
    if (is_plain) {
        text += value;
    } else {
        text += open_metrics_label(value);
    }
}

} // namespace

std::string open_metrics_label(std::string_view value) {
    std::string label;
    while (!value.empty()) {
        const char *end = nullptr;
        (void)g_utf8_validate(value.data(), static_cast<gssize>(value.size()), &end);
        const auto valid = static_cast<std::size_t>(end - value.data());
        for (const char ch : value.substr(0, valid)) {
            if (ch == '\n') {
                label += "\\n";
            } else {
                label.append(ch == '"' || ch == '\\' ? "\\" : "").append(1, ch);
            }
        }
        value.remove_prefix(valid);
        if (!value.empty()) {
            label += format_text("\\\\x%02X", static_cast<unsigned char>(value[0]));
            value.remove_prefix(1);
        }
    }
    return label;
}

void open_metrics_text::begin(metric_type type, std::string_view name, std::string_view help,
                              std::string_view unit) {
    name_ = name;
    suffix_ = suffix_of(type);
    head_.clear();
    head_.append("# HELP ").append(name).append(" ").append(help);
    head_.append("\n# TYPE ").append(name).append(" ").append(type_name(type)).append("\n");
    if (!unit.empty()) {
        head_.append("# UNIT ").append(name).append(" ").append(unit).append("\n");
    }
}

void open_metrics_text::add_text(label_list labels, std::string_view value) {
    if (text_.empty()) {
        text_.reserve(typical_size);
    }
    text_.append(head_).append(name_).append(suffix_);
    head_.clear();
    char before = '{';
    for (const auto &[label, label_value] : labels) {
        text_.append(1, before).append(label).append("=\"");
        append_label(text_, label_value);
        text_ += '"';
        before = ',';
    }
    text_.append(before == ',' ? "} " : " ").append(value).append("\n");
}

void open_metrics_text::add(label_list labels, double value) {
    std::array<char, 32> buffer;
    add_text(labels, std::isfinite(value) ? print(buffer, value) : "NaN");
}

void open_metrics_text::add(label_list labels, std::uint64_t value) {
    std::array<char, 32> buffer;
    add_text(labels, print(buffer, value));
}

void open_metrics_text::add_printed(label_list labels, std::string_view value) {
    if (is_number(value)) {
        add_text(labels, value);
    }
}

void open_metrics_text::gauge(std::string_view name, std::string_view help, double value,
                              std::string_view unit) {
    begin(metric_type::gauge, name, help, unit);
    add({}, value);
}

void open_metrics_text::counter(std::string_view name, std::string_view help, std::uint64_t value,
                                std::string_view unit) {
    begin(metric_type::counter, name, help, unit);
    add({}, value);
}

std::string open_metrics_text::finish() {
    return std::move(text_.append("# EOF\n"));
}
