#include "syslog_triggers.h"

#include "action_reply.h"
#include "debug_mode.h"
#include "event.h"
#include "log.h"
#include "log_capture.h"
#include "sandbox.h"
#include "session_globals.h"
#include "system_bus.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

namespace {

const std::string rules = "/usr/local/packages/Vandrel/localdata/systemlog_analyzer.txt";
const std::string crash_rules =
    "/usr/local/packages/Vandrel/localdata/systemlog_analyzer_logmsg.txt";

texts called; // names of the crash-report rules whose events came

void note_event(guint, TVEvent *event, gpointer rule) {
    tv_event_free(event);
    called.push_back(static_cast<systemlogs_monitor_t *>(rule)->name);
}

std::string listing() {
    return body_of(action_systemlog_trigger, {{"do", "list"}});
}

// Of these rules in the listing, the numbers behind "triggered_count".
std::vector<int> counts(const texts &names) {
    const std::string json = listing();
    std::vector<int> found;
    for (const std::string &name : names) {
        const auto at = json.find("\"triggered_count\":", json.find("\"name\":\"" + name + "\""));
        found.push_back(std::atoi(json.c_str() + at + 18));
    }
    return found;
}

void feed(const std::string &text) {
    std::thread(traverse_and_trigger_if_so, text.c_str()).join();
}

void settle() {
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

class SyslogTriggers : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(fs::path(rules).parent_path());
        fs::remove(rules);
        fs::remove(crash_rules);
        event_init();
        read_old_systemlog_analyser_rules(note_event);
        called.clear();
        monitory_active = true;
        advanced_debug_mode_crash_log_message_activated = true;
    }
    void TearDown() override {
        monitory_active = false;
        while (get_systemlog_list() != nullptr) {
            remove_a_systemlog_trigger_rule(std::string(get_systemlog_list()->name));
        }
        settle();
    }

    const system_bus bus_;
    log_capture log_;
};

std::string own(const std::string &message) {
    return "2023-05-31T08:27:40 [ INFO ] Vandrel[" + std::to_string(::getpid()) + "]: " + message;
}

} // namespace

TEST_F(SyslogTriggers, EveryRuleWhoseKeyIsInTheLineFires) {
    create_a_systemlog_trigger_rule({"first", "link down"}, false);
    create_a_systemlog_trigger_rule({"report", "down", true, 10, 0, 0}, false);
    create_a_systemlog_trigger_rule({"report too", "kernel", true, 10, 0, 0}, false);
    create_a_systemlog_trigger_rule({"other", "Link"}, false);
    create_a_systemlog_trigger_rule({"one letter", "L"}, false);
    create_a_systemlog_trigger_rule({"not ASCII", "\xc3\xa9t\xe9"}, false);
    for (const char *line : {"kernel: eth0 link down", "kernel: eth0 Link up",
                             "kernel: eth0 link dow", "\xc3\xa9t\xe9", "owdn nkil e\xa9\xc3"}) {
        feed(line);
    }
    EXPECT_EQ(counts({"first", "report", "report too", "other", "one letter", "not ASCII"}),
              (std::vector<int>{1, 1, 3, 1, 1, 1}));
    ASSERT_TRUE(run_until([] { return called.size() == 4; }));
    EXPECT_EQ(called, (texts{"report", "report too", "report too", "report too"})); // in its order

    // The same name again: the rule stays, its counting starts anew.
    const std::uint32_t event = get_systemlog_list()->eventID;
    create_a_systemlog_trigger_rule({"first", "new key", true, 5, 5, 5}, false);
    EXPECT_EQ(get_systemlog_list()->eventID, event);
    EXPECT_FALSE(get_systemlog_list()->is_subscribed);
    EXPECT_NE(listing().find("\"key_word\":\"new key\",\"last_time_triggered\":\"Not triggered "
                             "yet\",\"start_time_triggered\":\"Not triggered yet\",\"limit\":0,"
                             "\"cooldown\":\"0\",\"is_subscribed\":0,\"triggered_count\":0}"),
              std::string::npos);
    feed("link down");
    feed("a new key");
    EXPECT_EQ(counts({"first"}), std::vector<int>{1});
}

TEST_F(SyslogTriggers, AFloodIsCountedAndItsEventsAreBounded) {
    constexpr int lines = 20'000;
    create_a_systemlog_trigger_rule({"plain", "flood"}, false);
    create_a_systemlog_trigger_rule({"report", "flood", true, lines * 2, 0, 0}, false);
    log_.clear();
    std::thread([] {
        for (int i = 0; i < lines; ++i) {
            traverse_and_trigger_if_so("a flood");
        }
    }).join();
    EXPECT_EQ(counts({"plain", "report"}), (std::vector<int>{lines, lines}));
    feed("one more flood");
    ASSERT_TRUE(run_until([] { return called.size() == 500; }));
    settle();
    EXPECT_EQ(called.size(), 500U);
    const texts said = log_.texts();
    ASSERT_EQ(said.size(), 1U);
    EXPECT_TRUE(said[0].starts_with("WARNING System log trigger \"plain\" matches faster"));
    feed("afterwards, a flood"); // is sent again
    EXPECT_TRUE(run_until([] { return called.size() == 501; }));
}

TEST_F(SyslogTriggers, OwnReactionsMatchNothing) {
    for (const char *key : {"Vandrel", "Could not", "Metadata", "Other"}) {
        create_a_systemlog_trigger_rule({key, key}, false);
    }
    log_.clear();
    {
        const log_reaction reaction;
        std::thread([] { log_info("Metadata Event of another thread"); }).join();
        errno = ENOENT;
        log_error("Could not create 'x'");
        log_info("  Metadata Event \xc3\xa9t\xc3\xa9 \tx ");
    }
    log_info("Other");
    for (const logged_line &line : log_.lines()) {
        feed(own(line.message));
    }
    feed(own("Metadata Event \xc3\xa9t\xc3\xa9 #011x")); // as the log service writes it
    EXPECT_EQ(counts({"Vandrel", "Could not", "Metadata", "Other"}),
              (std::vector<int>{2, 0, 1, 1}));
    feed("Other[1]: Could not create 'x'");
    feed("2023-05-31T08:27:40 [ WARNING ] Vandrel-silent: debug_script.sh: Could not");
    EXPECT_EQ(counts({"Vandrel", "Could not"}), (std::vector<int>{2, 1}));
}

TEST_F(SyslogTriggers, CrashReportRulesKeepToLimitAndCooldown) {
    create_a_systemlog_trigger_rule({"limited", "limited", true, 2, 0, 0}, false);
    create_a_systemlog_trigger_rule({"cool", "cool", true, 2, UINT32_MAX, 1}, false);
    monitory_active = false;
    feed("limited cool");
    monitory_active = true;
    advanced_debug_mode_crash_log_message_activated = false;
    feed("limited cool");
    advanced_debug_mode_crash_log_message_activated = true;
    log_.clear();
    for (const char *line : {"limited", "limited", "limited", "cool", "cool"}) {
        feed(line);
    }
    EXPECT_EQ(counts({"limited", "cool"}), (std::vector<int>{2, 1}));
    const std::string limit_reached = "INFO Advanced Debug Mode: Found log message but configured "
                                      "Log Message Limit is reached. No Crash Report will "
                                      "generated.";
    EXPECT_EQ(log_.texts(), (texts{limit_reached, limit_reached}));
    // A match that is given back counts for neither, and may come again at once.
    auto &cool = const_cast<systemlogs_monitor_t &>(*get_systemlog_list()->next);
    give_match_back(cool, match_back::as_if_never);
    create_a_systemlog_trigger_rule({"long", "long", true, 9, 3600, 0}, false);
    log_.clear();
    for (const char *line : {"cool", "long", "long"}) {
        feed(line);
    }
    EXPECT_EQ(cool.count, 2U);
    ASSERT_EQ(log_.texts().size(), 1U);
    EXPECT_TRUE(log_.texts()[0].starts_with(
        "INFO Advanced Debug Mode: Found log message within Cool Down time. No Crash Report will "
        "generated. Will be ready in "));
    // The clock was set back since; and a report that could not be begun keeps the cooldown.
    auto &set_back = const_cast<systemlogs_monitor_t &>(*get_systemlog_list()->next->next);
    set_back.latest_activation += 365 * 24 * 3600;
    feed("long");
    EXPECT_EQ(set_back.count, 2U);
    give_match_back(set_back, match_back::with_cooldown);
    feed("long");
    EXPECT_EQ(set_back.count, 1U);
    ASSERT_TRUE(run_until([] { return called.size() == 6; }));

    log_.clear();
    create_a_systemlog_trigger_rule({"plain", "plain"}, false);
    remove_all_subscribed_triggers();
    ASSERT_NE(get_systemlog_list(), nullptr);
    EXPECT_EQ(get_systemlog_list()->name, "plain");
    EXPECT_EQ(get_systemlog_list()->next, nullptr);
    EXPECT_EQ(log_.texts(), texts{"INFO Creating systemlog trigger rule: plain"});
}

TEST_F(SyslogTriggers, TheFilesBringBackWhatTheyHold) {
    create_a_systemlog_trigger_rule({"a \"name\"\ncut", "key\\one"}, true);
    create_a_systemlog_trigger_rule({"crash", "panic", true, 3, 7200, 1}, true);
    create_a_systemlog_trigger_rule({"b", "[ ERR"}, true);
    const std::string plain = "NAME:a \"name\"\nKEY:key\\one\nNAME:b\nKEY:[ ERR\n";
    const std::string crash = "NAME:crash\nKEY:panic\nCOUNT:1\nLIMIT:3\nCOOLDOWN:7200\n";
    EXPECT_EQ(remove_a_systemlog_trigger_rule("b"), 0);
    EXPECT_EQ(remove_a_systemlog_trigger_rule("b"), 1);
    EXPECT_EQ(read_file(rules), plain); // a removal waits for the next store
    EXPECT_EQ(read_file(crash_rules), crash);
    TearDown();

    advanced_debug_mode_crash_log_message_activated = false;
    read_old_systemlog_analyser_rules(note_event);
    EXPECT_TRUE(advanced_debug_mode_crash_log_message_activated);
    store_systemlog_analyser_rules();
    EXPECT_EQ(read_file(rules), plain);
    EXPECT_EQ(read_file(crash_rules), crash);

    // What can't be written is left alone, and so is the other file.
    fs::remove(crash_rules);
    fs::create_directory(crash_rules);
    create_a_systemlog_trigger_rule({"c", "d"}, true);
    EXPECT_EQ(read_file(rules), plain);
    EXPECT_EQ(log_.texts().back(),
              "WARNING (errno: Is a directory) Could not open file '" + crash_rules + "'");
    fs::remove(crash_rules);
    TearDown();

    // Damaged files: what is whole comes back, the rest is said and left out.
    write_file(rules,
               "KEY:without a name\nNAME:good\nnonsense\nKEY:k1\nNAME:" + std::string(243, 'n') +
                   "\nKEY:k2\nNAME:bad\nKEY:" + std::string(495, 'k') +
                   "\nNAME:\nKEY:x\nNAME:cut\nKEY:\nNAME:\x01\nKEY:y\nNAME:half");
    write_file(crash_rules, "NAME:c\nKEY:k\nCOUNT:99999999999999999999\nLIMIT:x\nCOOLDOWN:-5\n" +
                                std::string(1000, '\0') + "\nCOOLDOWN:");
    log_.clear();
    read_old_systemlog_analyser_rules(note_event);
    store_systemlog_analyser_rules();
    EXPECT_EQ(read_file(rules), "NAME:good\nKEY:k1\n");
    EXPECT_EQ(read_file(crash_rules), "NAME:c\nKEY:k\nCOUNT:4294967295\nLIMIT:0\nCOOLDOWN:0\n");
    EXPECT_EQ(log_.texts()[0], "WARNING A systemlog trigger in '" + rules + "' can not be used: ");
    TearDown();

    std::string many;
    for (int i = 0; i < 2'000; ++i) {
        many += "NAME:rule " + std::to_string(i) + "\nKEY:key " + std::to_string(i) + " \n";
    }
    write_file(rules, many);
    write_file(crash_rules, "");
    read_old_systemlog_analyser_rules(note_event);
    feed("a line with key 1999 in it");
    EXPECT_EQ(counts({"rule 1999", "rule 199"}), (std::vector<int>{1, 0}));
    store_systemlog_analyser_rules();
    EXPECT_EQ(read_file(rules), many);
}

TEST_F(SyslogTriggers, AnswersTheAction) {
    const std::string added = "New systemlog trigger added.";
    const std::string not_found = "Systemlog trigger not removed (not found).";
    const std::string refused = "Status: 400 Bad Request";
    const std::string untriggered = "\",\"last_time_triggered\":\"Not triggered yet\",\"start_time_"
                                    "triggered\":\"Not triggered yet\",\"limit\":";
    const std::pair<std::string, std::string> cases[] = {
        // the body, or the start of a refusal
        {"", "Error: do=[add|remove|list]."},
        {"do=Add", "Error: do=[add|remove|list]."},
        {"do=list", "{\"active\":1,\"systemlog_trigger_rules\":[]}"},
        {"do=add&name=n", refused},
        {"do=add&key=k", refused},
        {"do=add&name=n&key=", refused},
        {"do=add&name=\nx&key=k", refused},
        {"do=add&name=n&key=tab\there", refused},
        {"do=add&name=\xc3&key=k", refused},
        {"do=add&key=k&name=" + std::string(243, 'n'), refused},
        {"do=add&name=n&key=" + std::string(100'000, 'k'), refused},
        {"do=add&name=n&subscription_message=m&limit=3", refused},
        {"do=add&name=n&subscription_message=m&limit=three&cooldown=60", refused},
        {"do=add&name=n&subscription_message=m&limit=3&cooldown=99999999999", refused},
        {"do=add&name=a+b\x1b&key=[ WARN+\"q\"", added + added},
        {"do=add&name=crash&subscription_message=seg+fault&limit=3&cooldown=7200", added},
        {"do=remove", ""},
        {"do=remove&name=A b+", not_found},
        {"do=list",
         "{\"active\":1,\"systemlog_trigger_rules\":[{\"name\":\"a b+\",\"key_word\":\"[ "
         "WARN \\\"q\\\"" +
             untriggered +
             "0,\"cooldown\":\"0\",\"is_subscribed\":0,\"triggered_count\":0},{\"name\":"
             "\"crash\",\"key_word\":\"seg fault" +
             untriggered + "3,\"cooldown\":\"7200\",\"is_subscribed\":1,\"triggered_count\":0}]}"},
        {"do=remove&name=a+b\x1b", "Systemlog trigger removed."},
        {"do=remove&name=" + std::string(100'000, 'n'), not_found},
        {"do=add&name=n&key=" + std::string(300, '"'), added + added},
    };
    for (const auto &[text, expected] : cases) {
        const std::string reply = reply_of(action_systemlog_trigger, query(text));
        EXPECT_EQ(expected == refused ? reply.substr(0, refused.size())
                                      : reply.substr(reply.find("\r\n\r\n") + 4),
                  expected)
            << text.substr(0, 80);
    }
    // Escaped text is cut to 255 bytes, but not in the middle of what it escapes.
    const std::string json = listing();
    const auto start = json.find("\"name\":\"n\",\"key_word\":\"") + 23;
    EXPECT_EQ(json.find("\",\"last", start) - start, 254U);
    EXPECT_EQ(log_.texts(),
              (texts{"INFO Creating systemlog trigger rule: a b+",
                     "INFO Trigger on Warning system log messages configured.",
                     "INFO Creating systemlog trigger rule with limit: 3, cooldown: 120 minutes",
                     "INFO System log trigger named: \"a b+\" is removed.",
                     "INFO Creating systemlog trigger rule: n",
                     "INFO Trigger on customized system log message configured."}));
}

TEST_F(SyslogTriggers, RulesChangeWhileLinesArrive) {
    create_a_systemlog_trigger_rule({"always", "line"}, false);
    constexpr int lines = 5'000;
    std::atomic<bool> done = false;
    std::thread follower([&] {
        for (int i = 0; i < lines; ++i) {
            traverse_and_trigger_if_so("a line");
        }
        done = true;
    });
    for (int i = 0; !done; ++i) {
        const std::string name = "r" + std::to_string(i % 7);
        create_a_systemlog_trigger_rule({name, "a", i % 2 == 0, 5, 0, 0}, i % 50 == 0);
        listing();
        monitory_active = i % 3 != 0;
        if (get_systemlog_list()->next) {
            give_match_back(const_cast<systemlogs_monitor_t &>(*get_systemlog_list()->next),
                            match_back::as_if_never);
        }
        remove_a_systemlog_trigger_rule("r" + std::to_string((i + 3) % 7));
        settle();
    }
    follower.join();
    EXPECT_EQ(counts({"always"}), std::vector<int>{lines});
}
