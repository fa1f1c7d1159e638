#include "syslog_triggers.h"

#include "dateutil.h"
#include "debug_mode.h"
#include "event.h"
#include "fileutil.h"
#include "key_filter.h"
#include "line_parser.h"
#include "log.h"
#include "loop.h"
#include "session_globals.h"
#include "strutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr const char *rules_path = "/usr/local/packages/Vandrel/localdata/systemlog_analyzer.txt";
constexpr const char *crash_report_rules_path =
    "/usr/local/packages/Vandrel/localdata/systemlog_analyzer_logmsg.txt";
constexpr std::size_t rule_line_max = 499;
constexpr std::size_t json_text_max = 255;
constexpr const char *not_triggered = "Not triggered yet";

// The tag under which the package's scripts log lines that no rule may match.
constexpr std::string_view silent_tag = "Vandrel-silent: ";

std::mutex rules_mutex; // guards the list, all of its rules, their filters, the events to send
std::unique_ptr<systemlogs_monitor_t> systemlog_rules_list;

// In list order, in an array of their own that fits the processor's cache. With 100 rules a line
// takes a fourth of the time that a plain search for each key takes.
struct filtered_rule {
    key_filter filter;
    systemlogs_monitor_t *rule;
};
std::vector<filtered_rule> filtered_rules;

// Pending events per rule, and events sent per idle call.
constexpr std::uint32_t waiting_max = 500;
constexpr std::size_t events_a_turn = 100;
std::deque<std::uint32_t> events_to_send;
bool are_being_sent = false; // an idle source sends them
unsigned long events_left_out = 0;
std::time_t left_out_said_at = 0;

TVSubscriptionCallback on_crash_report_event = nullptr;
std::unique_ptr<thread_info> tail_process;
unsigned next_event_number = 0; // a number is used once in a run

// --- The list, with the lock held

systemlogs_monitor_t *find_rule(std::string_view name) {
    for (auto *rule = systemlog_rules_list.get(); rule != nullptr; rule = rule->next.get()) {
        if (rule->name == name) {
            return rule;
        }
    }
    return nullptr;
}

void append_rule(std::unique_ptr<systemlogs_monitor_t> rule) {
    std::unique_ptr<systemlogs_monitor_t> *end = &systemlog_rules_list;
    while (*end) {
        end = &(*end)->next;
    }
    filtered_rules.push_back({filter_of(rule->key_word), rule.get()});
    *end = std::move(rule);
}

std::unique_ptr<systemlogs_monitor_t> unlink_rule(const systemlogs_monitor_t *wanted) {
    std::unique_ptr<systemlogs_monitor_t> *link = &systemlog_rules_list;
    while (link->get() != wanted) {
        link = &(*link)->next;
    }
    std::unique_ptr<systemlogs_monitor_t> rule = std::move(*link);
    *link = std::move(rule->next);
    std::erase_if(filtered_rules, [wanted](const auto &entry) { return entry.rule == wanted; });
    return rule;
}

void start_counting(systemlogs_monitor_t &rule) {
    rule.matched_count = rule.triggered_count = rule.sent_count = 0;
    rule.last_time_triggered = not_triggered;
    rule.start_time_triggered = not_triggered;
}

// --- Rules

bool is_usable(const std::string &text, std::size_t size_max) {
    return !text.empty() && text.size() <= size_max &&
           std::none_of(text.begin(), text.end(),
                        [](unsigned char ch) { return ch < ' ' || ch == 0x7f; });
}

void free_rule(const systemlogs_monitor_t &rule) {
    if (rule.is_subscribed) {
        if (rule.subscription != 0) {
            (void)unsubscribe_event_systemlogs(rule.subscription);
        }
    } else {
        log_info("System log trigger named: \"%s\" is removed.", rule.name.c_str());
    }
    event_undeclare_systemlogs(rule.eventID);
}

std::string rules_text(bool subscribed) {
    const std::lock_guard lock(rules_mutex);
    std::string text;
    for (const auto *rule = systemlog_rules_list.get(); rule; rule = rule->next.get()) {
        if (rule->is_subscribed != subscribed) {
            continue;
        }
        text += "NAME:" + rule->name + "\nKEY:" + rule->key_word + "\n";
        if (subscribed) {
            text += format_text("COUNT:%u\nLIMIT:%u\nCOOLDOWN:%u\n", rule->count, rule->limit,
                                rule->cooldown_ui);
        }
    }
    return text;
}

// Makes a rule of a record of a rule file.
void create_stored_rule(const trigger_request &request, const char *path) {
    if (!create_a_systemlog_trigger_rule(request, false)) {
        log_warning("A systemlog trigger in '%s' can not be used: %.100s", path,
                    request.name.c_str());
    }
}

std::uint32_t number_behind(const std::string &line, std::size_t key_length) {
    return static_cast<std::uint32_t>(
        std::min<unsigned long long>(decimal_prefix_unsigned(line.c_str() + key_length),
                                     std::numeric_limits<std::uint32_t>::max()));
}

// Reads either rule file: a record ends with KEY in one and with COOLDOWN in the other. False when
// the file can't be opened.
bool read_rules(const char *path, bool subscribed) {
    const unique_file file = file_open_or_warn(path, "r");
    if (!file) {
        return false;
    }
    trigger_request pending;
    pending.subscribe_also = subscribed;
    std::string line;
    while (read_line(file.get(), rule_line_max, line)) {
        str_terminate_at(line, '\n');
        if (line.starts_with("NAME:")) {
            pending.name = line.substr(5);
        } else if (line.starts_with("KEY:")) {
            pending.key_word = line.substr(4);
            if (!subscribed) {
                create_stored_rule(pending, path);
            }
        } else if (subscribed && line.starts_with("COUNT:")) {
            pending.count_given = number_behind(line, 6);
        } else if (subscribed && line.starts_with("LIMIT:")) {
            pending.limit = number_behind(line, 6);
        } else if (subscribed && line.starts_with("COOLDOWN:")) {
            pending.cooldown_ui = number_behind(line, 9);
            create_stored_rule(pending, path);
            advanced_debug_mode_crash_log_message_activated = true;
        }
    }
    return true;
}

// --- Matching, on the follower's thread

// Whether the line is a reaction of the daemon or of its scripts.
bool is_own_reaction(std::string_view line) {
    static const std::string tag = "Vandrel[" + std::to_string(::getpid()) + "]: ";
    const std::size_t at = line.find(tag);
    return line.find(silent_tag) != std::string_view::npos ||
           (at != std::string_view::npos && log_was_reaction(line.substr(at + tag.size())));
}

// Whether the rule's event is to be sent now; counts it if so. A refusal of a crash-report rule is
// logged.
bool count_match(systemlogs_monitor_t &rule, std::time_t now) {
    const log_reaction what_is_said;
    if (!rule.is_subscribed) {
        return true;
    }
    if (!monitory_active || !advanced_debug_mode_crash_log_message_activated) {
        return false;
    }
    if (rule.limit <= rule.count) {
        log_info("Advanced Debug Mode: Found log message but configured Log Message Limit is "
                 "reached. No Crash Report will generated.");
        return false;
    }
    const std::int64_t elapsed = now - rule.latest_activation;
    // The first match always passes (a camera's clock may begin at 1970), and so does one after the
    // clock was set back, when the time elapsed is unknown.
    if (rule.latest_activation != 0 && elapsed >= 0 && elapsed < rule.cooldown) {
        const auto left = static_cast<unsigned>(rule.cooldown - elapsed);
        log_info("Advanced Debug Mode: Found log message within Cool Down time. No Crash Report "
                 "will generated. Will be ready in %u minutes, %u seconds.",
                 left / 60, left % 60);
        return false;
    }
    ++rule.count;
    rule.latest_activation = now;
    return true;
}

// Rate-limited to once a minute for all rules. With the lock held.
void note_left_out(const systemlogs_monitor_t &rule, std::time_t now) {
    constexpr std::time_t pause_s = 60;
    ++events_left_out;
    if (now - left_out_said_at >= pause_s || now < left_out_said_at) {
        left_out_said_at = now;
        const log_reaction what_is_said;
        log_warning("System log trigger \"%s\" matches faster than events can be sent: %lu events "
                    "have been left out.",
                    rule.name.c_str(), std::exchange(events_left_out, 0));
    }
}

// Sends a batch per idle call, so that the loop serves others in between.
gboolean send_events(gpointer) noexcept {
    std::vector<std::uint32_t> events;
    bool are_more = false;
    {
        const std::lock_guard lock(rules_mutex);
        const auto count =
            static_cast<std::ptrdiff_t>(std::min(events_to_send.size(), events_a_turn));
        events.assign(events_to_send.begin(), events_to_send.begin() + count);
        events_to_send.erase(events_to_send.begin(), events_to_send.begin() + count);
        for (auto *rule = systemlog_rules_list.get(); rule != nullptr; rule = rule->next.get()) {
            rule->events_waiting -=
                static_cast<std::uint32_t>(std::count(events.begin(), events.end(), rule->eventID));
        }
        are_more = are_being_sent = !events_to_send.empty();
    }
    const log_reaction what_is_said;
    for (const std::uint32_t event : events) {
        send_event_systemlogs(event); // sends nothing if the rule was removed
    }
    return are_more ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

// --- The action

// Decodes "+" to a blank and ESC to "+": the page sends them so.
std::string decode_plus(std::string text) {
    str_replace_char(text, '+', ' ');
    str_replace_char(text, '\x1b', '+');
    return text;
}

constexpr std::string_view added = "New systemlog trigger added.";

// A number of the request; nothing when missing, invalid or too large.
std::optional<std::uint32_t> number_argument(const char *value) {
    const auto number = plain_decimal(value);
    if (!number || *number > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*number);
}

void log_plain_rule(const std::string &key) {
    static constexpr struct {
        const char *text;
        const char *name;
    } severities[] = {{"[ WARN", "Warning"},
                      {"[ ERR", "Error"},
                      {"[ CRIT", "Critical"},
                      {"[ ALERT", "Alert"},
                      {"[ EMERG", "Emergency"}};
    for (const auto &severity : severities) {
        if (key.find(severity.text) != std::string::npos) {
            log_info("Trigger on %s system log messages configured.", severity.name);
            return;
        }
    }
    log_info("Trigger on customized system log message configured.");
}

void add_crash_report_rule(GDataOutputStream *stream, const char *name, const char *message,
                           const char *limit, const char *cooldown) {
    const auto limit_number = number_argument(limit);
    const auto cooldown_number = number_argument(cooldown);
    if (!limit_number || !cooldown_number) {
        print_http_error(stream, "limit and cooldown must be plain decimal numbers.");
        return;
    }
    const trigger_request request{decode_plus(name), decode_plus(message), true,
                                  *limit_number,     *cooldown_number,     0};
    if (!create_a_systemlog_trigger_rule(request, true)) {
        print_http_error(stream, "name or subscription_message is empty or can not be used.");
        return;
    }
    http_reply(stream, http_status::ok, content_type::text_utf8, added);
}

void add_plain_rule(GDataOutputStream *stream, const char *name, const char *key) {
    if (name == nullptr || key == nullptr) {
        print_http_error(stream, "name and key are required.");
        return;
    }
    const trigger_request request{decode_plus(name), decode_plus(key)};
    if (!create_a_systemlog_trigger_rule(request, true)) {
        print_http_error(stream, "name or key is empty or can not be used.");
        return;
    }
    http_reply(stream, http_status::ok, content_type::text_utf8, added);
    log_plain_rule(request.key_word);
    http_write(stream, added); // twice: kept, clients compare this text
}

void add_rule(GDataOutputStream *stream, GHashTable *arguments) {
    const char *name = http_argument(arguments, "name");
    const char *message = http_argument(arguments, "subscription_message");
    const char *limit = http_argument(arguments, "limit");
    const char *cooldown = http_argument(arguments, "cooldown");
    if (message != nullptr && limit != nullptr && cooldown != nullptr && name != nullptr) {
        add_crash_report_rule(stream, name, message, limit, cooldown);
    } else {
        add_plain_rule(stream, name, http_argument(arguments, "key"));
    }
}

void remove_rule(GDataOutputStream *stream, GHashTable *arguments) {
    std::string_view body;
    if (const char *name = http_argument(arguments, "name")) {
        body = remove_a_systemlog_trigger_rule(decode_plus(name)) == 0
                   ? "Systemlog trigger removed."
                   : "Systemlog trigger not removed (not found).";
    }
    http_reply(stream, http_status::ok, content_type::text_utf8, body);
}

void list_rules(GDataOutputStream *stream) {
    http_reply(stream, http_status::ok, content_type::json_utf8,
               format_text("{\"active\":%d,\"systemlog_trigger_rules\":", monitory_active.load()));
    output_all_triggers_as_json_string(stream);
    http_write(stream, "}");
}

// Truncated to the listing's field size, never inside an escape sequence.
std::string json_text(const std::string &text) {
    std::string escaped;
    for (const char ch : text) {
        const std::size_t size = ch == '"' ? 2 : 1;
        if (escaped.size() + size > json_text_max) {
            break;
        }
        if (ch == '"') {
            escaped += '\\';
        }
        escaped += ch;
    }
    return escaped;
}

} // namespace

bool create_a_systemlog_trigger_rule(const trigger_request &request, bool store_also) {
    const std::string name = request.name.substr(0, request.name.find('\n'));
    const std::string key = request.key_word.substr(0, request.key_word.find('\n'));
    const bool is_title = g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr);
    if (!is_usable(name, trigger_name_max) || !is_title || !is_usable(key, trigger_key_max)) {
        return false;
    }
    if (request.subscribe_also) {
        log_info("Creating systemlog trigger rule with limit: %d, cooldown: %d minutes",
                 static_cast<int>(request.limit), static_cast<int>(request.cooldown_ui / 60));
    } else {
        log_info("Creating systemlog trigger rule: %s", name.c_str());
    }
    std::unique_lock lock(rules_mutex);
    if (systemlogs_monitor_t *rule = find_rule(name)) {
        rule->key_word = key;
        start_counting(*rule);
        std::find_if(filtered_rules.begin(), filtered_rules.end(), [rule](const auto &entry) {
            return entry.rule == rule;
        })->filter = filter_of(key);
        lock.unlock();
    } else {
        lock.unlock();
        auto made = std::make_unique<systemlogs_monitor_t>();
        made->name = name;
        made->key_word = key;
        start_counting(*made);
        made->eventID = declare_event_systemlogs(next_event_number, name.c_str());
        made->is_subscribed = request.subscribe_also;
        made->limit = request.limit;
        made->cooldown = request.cooldown_ui;
        made->cooldown_ui = request.cooldown_ui;
        if (request.subscribe_also) {
            made->count = request.count_given;
            made->subscription = subscribe_event_systemlogs(next_event_number, name.c_str(),
                                                            on_crash_report_event, made.get());
        }
        ++next_event_number;
        lock.lock();
        append_rule(std::move(made));
        lock.unlock();
    }
    if (store_also) {
        store_systemlog_analyser_rules();
    }
    return true;
}

int remove_a_systemlog_trigger_rule(std::string_view name) {
    std::unique_ptr<systemlogs_monitor_t> rule;
    {
        const std::lock_guard lock(rules_mutex);
        const systemlogs_monitor_t *found = find_rule(name);
        if (found == nullptr) {
            return 1;
        }
        rule = unlink_rule(found);
    }
    free_rule(*rule);
    return 0;
}

void remove_all_subscribed_triggers() {
    // Only the main loop changes the list itself, so it may be walked without the lock.
    const systemlogs_monitor_t *rule = get_systemlog_list();
    while (rule != nullptr) {
        const systemlogs_monitor_t *next = rule->next.get();
        if (rule->is_subscribed) {
            remove_a_systemlog_trigger_rule(rule->name);
        }
        rule = next;
    }
}

void traverse_and_trigger_if_so(const char *line) {
    const std::lock_guard lock(rules_mutex);
    const line_pairs pairs = pairs_of(line);
    std::time_t now = 0;
    std::string now_text; // formatted at the first match: most lines match nothing
    for (const auto &[filter, rule] : filtered_rules) {
        if (!may_contain(pairs, filter) || std::strstr(line, rule->key_word.c_str()) == nullptr) {
            continue;
        }
        if (now_text.empty()) {
            if (is_own_reaction(line)) {
                return;
            }
            now = std::time(nullptr);
            now_text = date_format_now(date_format_information);
        }
        ++rule->matched_count;
        if (!count_match(*rule, now)) {
            continue;
        }
        ++rule->triggered_count;
        rule->last_time_triggered = now_text;
        if (rule->start_time_triggered.starts_with("Not")) {
            rule->start_time_triggered = now_text;
        }
        if (rule->events_waiting == waiting_max) {
            note_left_out(*rule, now);
            continue;
        }
        ++rule->events_waiting;
        ++rule->sent_count;
        events_to_send.push_back(rule->eventID);
        if (!std::exchange(are_being_sent, true)) {
            loop_add_idle(send_events, nullptr);
        }
    }
}

std::vector<trigger_counts> syslog_trigger_counts() {
    const std::lock_guard lock(rules_mutex);
    std::vector<trigger_counts> counts;
    for (const auto *rule = systemlog_rules_list.get(); rule != nullptr; rule = rule->next.get()) {
        counts.push_back({rule->name, rule->matched_count, rule->sent_count});
    }
    return counts;
}

void give_match_back(systemlogs_monitor_t &rule, match_back how) {
    const std::lock_guard lock(rules_mutex);
    if (how == match_back::as_if_never) {
        rule.latest_activation = 0;
    }
    if (rule.count > 0) {
        --rule.count;
    }
}

void store_systemlog_analyser_rules() {
    // Both must be there to be written, so that one can't be read back without the other.
    for (const char *path : {rules_path, crash_report_rules_path}) {
        if (!file_open_or_warn(path, "a")) {
            return;
        }
    }
    file_put_string(rules_path, rules_text(false));
    file_put_string(crash_report_rules_path, rules_text(true));
}

void read_old_systemlog_analyser_rules(TVSubscriptionCallback callback) {
    on_crash_report_event = callback;
    if (systemlog_rules_list || !is_file(rules_path) || !is_file(crash_report_rules_path)) {
        return;
    }
    if (read_rules(rules_path, false)) {
        read_rules(crash_report_rules_path, true);
    }
}

void output_all_triggers_as_json_string(GDataOutputStream *stream) {
    std::string json;
    {
        const std::lock_guard lock(rules_mutex);
        for (const auto *rule = systemlog_rules_list.get(); rule; rule = rule->next.get()) {
            json += json.empty() ? "" : ",";
            json += "{\"name\":\"" + json_text(rule->name) + "\",\"key_word\":\"" +
                    json_text(rule->key_word) + "\",\"last_time_triggered\":\"" +
                    rule->last_time_triggered + "\",\"start_time_triggered\":\"" +
                    rule->start_time_triggered;
            json +=
                format_text("\",\"limit\":%u,\"cooldown\":\"%ld\",\"is_subscribed\":%d",
                            rule->limit, static_cast<long>(rule->cooldown), rule->is_subscribed);
            json += format_text(",\"triggered_count\":%lu}",
                                static_cast<unsigned long>(rule->triggered_count));
        }
    }
    http_write(stream, "[" + json + "]");
}

const systemlogs_monitor_t *get_systemlog_list() {
    return systemlog_rules_list.get();
}

void syslog_triggers_begin_listening() {
    static constexpr const char *follower[] = {"/usr/bin/tail", "-n0", "-F", vandrel_log_path,
                                               nullptr};
    if (!tail_process) {
        tail_process = process_create(follower, traverse_and_trigger_if_so);
    }
}

void syslog_triggers_keep_listening() {
    if (tail_process && tail_process->at_end) {
        log_warning("What follows the log for the triggers has ended and is started again.");
        syslog_triggers_stop_listening();
        syslog_triggers_begin_listening();
    }
}

void syslog_triggers_stop_listening() {
    process_stop(tail_process.get());
    process_wait(tail_process.get());
    process_free(tail_process);
}

void action_systemlog_trigger(GDataOutputStream *stream, GHashTable *arguments) {
    const char *argument = http_argument(arguments, "do");
    const std::string_view command = argument == nullptr ? "" : argument;
    if (command == "add") {
        add_rule(stream, arguments);
    } else if (command == "remove") {
        remove_rule(stream, arguments);
    } else if (command == "list") {
        list_rules(stream);
    } else {
        http_reply(stream, http_status::ok, content_type::text_utf8,
                   "Error: do=[add|remove|list].");
    }
}
