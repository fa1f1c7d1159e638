#include "dateutil.h"
#include "log.h"
#include "log_capture.h"
#include "shell_word.h"
#include "strutil.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <gtest/gtest.h>

TEST(Strutil, TerminatesAndReplacesInPlace) {
    char line[] = "one\ntwo\n";
    EXPECT_EQ(str_terminate_at(line, '\n'), line + 3);
    EXPECT_STREQ(line, "one");
    EXPECT_EQ(str_terminate_at(line, '\n'), nullptr);

    char address[] = "10.0.0.1";
    EXPECT_EQ(str_replace_next_char(address, '.', 'o'), address + 2);
    EXPECT_STREQ(address, "10o0.0.1");
    str_replace_char(address, '.', 'o');
    EXPECT_STREQ(address, "10o0o0o1");
    EXPECT_EQ(str_replace_next_char(address, '.', 'o'), nullptr);
}

TEST(Strutil, ReadsNumbersAsTheCLibraryDoesButWithoutLocale) {
    const struct {
        const char *text;
        long long value;
    } cases[] = {
        {"12", 12},
        {"12abc", 12},
        {" \t-7 ", -7},
        {"+5", 5},
        {"", 0},
        {"abc", 0},
        {"- 5", 0},
        {"1e3", 1},
        {"0x10", 0},
        {"9223372036854775808", LLONG_MAX},
        {"-99999999999999999999", LLONG_MIN},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(decimal_prefix(c.text), c.value) << c.text;
    }
    EXPECT_EQ(decimal_prefix_unsigned("18446744073709551616"), ULLONG_MAX);
    EXPECT_EQ(decimal_prefix_unsigned("-1"), 0U);

    EXPECT_EQ(plain_decimal("60"), 60U);
    for (const char *text : {"", " 60", "60 ", "-1", "+1", "6a", "18446744073709551616"}) {
        EXPECT_FALSE(plain_decimal(text)) << text;
    }
}

TEST(Strutil, BoundedTextFitsOrEndsTheProcess) {
    EXPECT_EQ(format_bounded(4, "%s", "abc"), "abc");
    EXPECT_DEATH(
        {
            // Nothing reads the log of the dying process but this sink.
            log_set_sink([](int level, const std::string &message) {
                fprintf(stderr, "%d %s\n", level, message.c_str());
            });
            errno = ENOENT;
            format_bounded(4, "%s", "abcd");
        },
        "0 \\(strutil_test:[0-9]+, errno: No such file or directory\\) snprintf for %s returned 4, "
        "expected between 0 and 4");
}

TEST(ShellWord, SaysWhatStaysInItsPlace) {
    const struct {
        std::string text;
        bool word, in_double, in_single;
    } cases[] = {
        {"SD_DISK", true, true, true},
        {"/a/b-c.d+e:f", true, true, true},
        {"", false, true, true},
        {"a b", false, true, true},
        {"it's", false, true, false},
        {"a;b|c&d>e", false, true, true},
        {"\xc3\xa5", false, true, true},
        {"say \"x\"", false, false, true},
        {"`id`", false, false, true},
        {"$(id)", false, false, true},
        {"a\\", false, false, true},
        {"a\nb", false, false, false},
        {std::string("a\0b", 3), false, false, false},
        {"\x7f", false, false, false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(is_shell_word(c.text), c.word) << c.text;
        EXPECT_EQ(is_safe_in_double_quotes(c.text), c.in_double) << c.text;
        EXPECT_EQ(is_safe_in_single_quotes(c.text), c.in_single) << c.text;
    }
}

TEST(Dateutil, FormatsNowAndReportsWhatDoesNotFit) {
    log_capture log;
    std::tm parsed{};
    const std::string now = date_format_now(date_format_row);
    ASSERT_NE(::strptime(now.c_str(), date_format_row, &parsed), nullptr) << now;
    parsed.tm_isdst = -1;
    EXPECT_LE(std::difftime(std::time(nullptr), std::mktime(&parsed)), 60);
    EXPECT_TRUE(log.lines().empty());

    char small[4];
    date_format_now(small, sizeof small, "%Y-%m-%d");
    EXPECT_EQ(date_format_now(""), "");
    const std::string complaint =
        "ERR (dateutil:#, errno: None) The time string exceeds the given buffer, or is empty.";
    EXPECT_EQ(log.texts(), std::vector<std::string>(2, complaint));
}

TEST(Log, GivesErrorsTheirPlaceAndErrnoAndForgetsIt) {
    log_capture log;
    errno = EACCES;
    log_error("no %s", "way");
    log_critical("%d", 5);
    errno = ENOENT;
    log_cannot_open("/x");
    log_info("plain (%d%%)", 3);
    log_warning("%s", std::string(100'000, 'x').c_str());
    const auto texts = log.texts();
    ASSERT_EQ(texts.size(), 5U);
    EXPECT_EQ(texts[0], "ERR (strutil_test:#, errno: Permission denied) no way");
    EXPECT_EQ(texts[1], "CRIT (strutil_test:#, errno: None) 5");
    EXPECT_EQ(texts[2], "WARNING (errno: No such file or directory) Could not open file '/x'");
    EXPECT_EQ(texts[3], "INFO plain (3%)");
    EXPECT_EQ(texts[4], "WARNING " + std::string(log_message_max, 'x'));
    EXPECT_EQ(errno, 0);
}

TEST(ShellWord, PartsWhatNeedsNoShell) {
    using words = std::vector<std::string>;
    const struct {
        const char *command;
        std::optional<words> expected;
    } cases[] = {
        {"uptime", words{"uptime"}},
        {"  grep \"a b\"  /proc/vmstat ", words{"grep", "a b", "/proc/vmstat"}},
        {"du -bks \"/a *b\"c''", words{"du", "-bks", "/a *bc"}},
        {"x '$a `b` \\ \"' \"\"", words{"x", "$a `b` \\ \"", ""}},
        {"dbus-send --a=b string:com.tarvo.X", words{"dbus-send", "--a=b", "string:com.tarvo.X"}},
        {"", std::nullopt},
        {"ps | grep x", std::nullopt},
        {"a; b", std::nullopt},
        {"a &", std::nullopt},
        {"a > b", std::nullopt},
        {"ls *", std::nullopt},
        {"ls ~", std::nullopt},
        {"a # b", std::nullopt},
        {"a\nb", std::nullopt},
        {"a \\b", std::nullopt},
        {"a $b", std::nullopt},
        {"a \"$b\"", std::nullopt},
        {"a \"b", std::nullopt},
        {"a 'b", std::nullopt},
        {"a {b,c}", std::nullopt},
        {"! a", std::nullopt},
        {"A=b c", std::nullopt},
        {"echo a", std::nullopt},
        {"kill 1", std::nullopt},
        {"if", std::nullopt},
        {"'' a", std::nullopt},
    };
    for (const auto &[command, expected] : cases) {
        EXPECT_EQ(words_without_shell(command), expected) << command;
    }
    EXPECT_EQ(pipeline_without_shell("ps|grep 'a|b\"' | sort"),
              (std::vector<words>{{"ps"}, {"grep", "a|b\""}, {"sort"}}));
    for (const char *command : {"ps", "a |", "| a", "a || b", "a |& b", ": | a", "a | b > c"}) {
        EXPECT_EQ(pipeline_without_shell(command), std::nullopt) << command;
    }
}
