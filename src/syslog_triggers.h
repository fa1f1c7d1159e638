// Rules that raise a platform event whenever a line of the system log contains their text. They are
// kept in two files across restarts. The log is followed on a thread of its own; everything here is
// called on the main loop but traverse_and_trigger_if_so.
#pragma once

#include "http.h"

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <tvevent.h>
#include <vector>

// In bytes: what the event's title and the lines of the rule files can hold. Longer, empty and
// control-character texts are refused, and names that are not UTF-8, which D-Bus would refuse. A
// key may hold any other bytes, as log lines do.
inline constexpr std::size_t trigger_name_max = 242;
inline constexpr std::size_t trigger_key_max = 494;

// The package's own copy of the system log.
inline constexpr const char *vandrel_log_path = "/usr/local/vandrel.log";

// A rule, guarded by the module's lock. The log follower writes the fields marked (follower); the
// main loop alone writes the others, and may read those without the lock.
struct systemlogs_monitor_t {
    std::string name;                  // of all rules no two have the same
    std::string key_word;              // what a line must contain
    std::string last_time_triggered;   // local time of the latest sending (follower)
    std::string start_time_triggered;  // and of the first (follower)
    std::uint64_t matched_count = 0;   // lines since the key was set (follower)
    std::uint64_t triggered_count = 0; // of them those that are to be answered (follower)
    std::uint64_t sent_count = 0;      // and of those the events sent (follower)
    std::uint32_t eventID = 0;
    std::uint32_t events_waiting = 0; // to be sent by the main loop (follower)
    bool is_subscribed = false;       // a crash-report rule: our own subscription makes the report

    // Of a crash-report rule only:
    std::uint32_t subscription = 0;
    std::uint32_t count = 0; // reports asked for; survives restarts (follower)
    std::uint32_t limit = 0; // and how many may be
    std::time_t latest_activation =
        0;                         // of the latest sending; 0 lets the next match pass (follower)
    std::int64_t cooldown = 0;     // seconds between two sendings
    std::uint32_t cooldown_ui = 0; // the same, as it is stored

    std::unique_ptr<systemlogs_monitor_t> next;
};

// The arguments of a new rule.
struct trigger_request {
    std::string name;
    std::string key_word;
    bool subscribe_also = false; // a crash-report rule, with the three below
    std::uint32_t limit = 0;
    std::uint32_t cooldown_ui = 0; // seconds
    std::uint32_t count_given = 0;
};

// Makes a rule, or gives the rule of that name a new key and its counts and times a new start. Name
// and key end at their first newline. False, and nothing changes, when one of them can't be used.
bool create_a_systemlog_trigger_rule(const trigger_request &request, bool store_also);

// 0, or 1 when there is no rule of that name. The rule files follow at the next store.
int remove_a_systemlog_trigger_rule(std::string_view name);

// Removes all crash-report rules.
void remove_all_subscribed_triggers();

// Takes one line of the log: counts the rules whose key it contains and has the main loop send
// their events, in list order. Called on the log follower's thread. The daemon's own reactions to a
// match or an event match no rule (log_reaction).
void traverse_and_trigger_if_so(const char *line);

// Undoes the latest match of a crash-report rule: it does not count, and starts no cooldown unless
// the next match would come to nothing as well.
enum class match_back { as_if_never, with_cooldown };
void give_match_back(systemlogs_monitor_t &rule, match_back how);

// Writes both rule files. A failure is logged.
void store_systemlog_analyser_rules();

// Reads the rules that an earlier run has stored, if there are none yet; records that can't be used
// are logged and skipped. From now on `callback` is called, with its rule as user data, for each
// event of a crash-report rule.
void read_old_systemlog_analyser_rules(TVSubscriptionCallback callback);

// A JSON array of all rules. Only double quotes are escaped: see docs/http-api.md.
void output_all_triggers_as_json_string(GDataOutputStream *stream);

// The rules' counts since their keys were set, as they are now.
struct trigger_counts {
    std::string name;
    std::uint64_t matched = 0;
    std::uint64_t sent = 0;
};
std::vector<trigger_counts> syslog_trigger_counts();

// The first rule, or null.
const systemlogs_monitor_t *get_systemlog_list();

// Starts and ends following the log. Ending waits for the follower's thread.
void syslog_triggers_begin_listening();
// While it is followed: starts a follower anew that somebody has ended. Costs nothing otherwise.
void syslog_triggers_keep_listening();
void syslog_triggers_stop_listening();

// The action: "do" is add, remove or list.
void action_systemlog_trigger(GDataOutputStream *stream, GHashTable *arguments);
