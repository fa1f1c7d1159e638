// The text that monitoring systems read.
#include "open_metrics.h"

#include <gtest/gtest.h>
#include <limits>

TEST(OpenMetrics, EscapesLabels) {
    const struct {
        std::string_view value;
        const char *label;
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"a \"b\" \\ c\nd", R"(a \"b\" \\ c\nd)"},
        {"\xc3\xbc\xff\xe2\x98", "\xc3\xbc\\\\xFF\\\\xE2\\\\x98"},
        {std::string_view("a\0b", 3), R"(a\\x00b)"},
        {"}\t=,{", "}\t=,{"},
    };
    for (const auto &[value, label] : cases) {
        EXPECT_EQ(open_metrics_label(value), label);
    }
}

TEST(OpenMetrics, WritesFamiliesThatHaveSamples) {
    open_metrics_text text;
    text.begin(metric_type::gauge, "nobody", "Has none.");
    text.begin(metric_type::counter, "bytes_sent_bytes", "Sent.", "bytes");
    text.add({{"device", "eth0"}, {"queue", "\""}}, std::uint64_t{18446744073709551615U});
    text.add_printed({{"device", "eth1"}}, "12x");
    text.add_printed({{"device", "eth2"}}, "-0.50");
    text.begin(metric_type::info, "build", "Version.");
    text.add({{"version", "1"}}, std::uint64_t{1});
    text.gauge("age_seconds", "Age.", std::numeric_limits<double>::infinity(), "seconds");
    text.gauge("share", "Share.", 0.1);
    EXPECT_EQ(text.finish(), "# HELP bytes_sent_bytes Sent.\n"
                             "# TYPE bytes_sent_bytes counter\n"
                             "# UNIT bytes_sent_bytes bytes\n"
                             "bytes_sent_bytes_total{device=\"eth0\",queue=\"\\\"\"} "
                             "18446744073709551615\n"
                             "bytes_sent_bytes_total{device=\"eth2\"} -0.50\n"
                             "# HELP build Version.\n"
                             "# TYPE build info\n"
                             "build_info{version=\"1\"} 1\n"
                             "# HELP age_seconds Age.\n"
                             "# TYPE age_seconds gauge\n"
                             "# UNIT age_seconds seconds\n"
                             "age_seconds NaN\n"
                             "# HELP share Share.\n"
                             "# TYPE share gauge\n"
                             "share 0.1\n"
                             "# EOF\n");
}
