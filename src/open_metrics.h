// Writes figures as OpenMetrics text 1.0.0. Main loop only.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

// info: a value of 1, the labels carry the information. unknown: either a gauge or a counter.
enum class metric_type { gauge, counter, info, unknown };

class open_metrics_text {
  public:
    using label_list = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    // Begins the family of the next samples. `name` lacks "_total" and "_info", which samples get;
    // a unit is the last word of it. A family without samples is left out.
    void begin(metric_type type, std::string_view name, std::string_view help,
               std::string_view unit = {});

    // A sample of the family. Labels are unique in a family.
    void add(label_list labels, double value);
    void add(label_list labels, std::uint64_t value);
    // A value as a kernel file or a service printed it; left out unless a plain decimal number.
    void add_printed(label_list labels, std::string_view value);

    // A family with one sample.
    void gauge(std::string_view name, std::string_view help, double value,
               std::string_view unit = {});
    void counter(std::string_view name, std::string_view help, std::uint64_t value,
                 std::string_view unit = {});

    // The whole text, which ends here.
    std::string finish();

  private:
    void add_text(label_list labels, std::string_view value);

    std::string text_;
    std::string head_; // of the family, until its first sample
    std::string name_;
    std::string_view suffix_;
};

// A label's value between its quotes: "a\"b" -> "a\\\"b". Bytes that are no UTF-8 become "\\xFF".
std::string open_metrics_label(std::string_view value);
