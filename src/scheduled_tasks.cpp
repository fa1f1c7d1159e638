#include "scheduled_tasks.h"

#include "app_state.h"
#include "dateutil.h"
#include "fileutil.h"
#include "log.h"
#include "strutil.h"
#include "sysutil.h"
#include "vdrl_syslog_remote.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

bool automatic_restart_interval = false;
unsigned long starting_tick = 0;
unsigned long nbr_of_ticks_until_activation = 0;
std::optional<std::string> automatic_restart_given_times;
bool ptz_test_interval = false;
unsigned long ptz_starting_tick = 0;
unsigned long ptz_nbr_of_ticks_until_activation = 0;
std::optional<std::string> ptz_test_given_times;

namespace {

constexpr std::size_t interval_line_max = 198;
constexpr std::size_t times_max = 4095; // bytes of a list of times
// No restart by time of day so soon after a start: that start may be the restart of this very
// minute, and the clock may not be set yet.
constexpr auto restart_pause = std::chrono::seconds(90);
constexpr long long interval_too_short = 2; // minutes

// One of the two tasks: its settings, files, command and texts. The texts differ in more than the
// name: kept, clients and log readers compare them.
struct task {
    const char *rule;
    const char *name;    // in the log when it is due
    const char *command; // what it does
    const char *interval_path;
    const char *times_path;
    const char *fired_path; // the time of day last acted upon and its date; null: not kept

    bool &interval;
    unsigned long &length; // of the interval, in ticks
    unsigned long &start;  // tick from which it counts
    std::optional<std::string> &times;
    std::string fired{}; // that time: "2026-11-21 08:00"

    const char *interval_reply;
    const char *times_reply;
    const char *interval_stopped_reply;
    const char *times_stopped_reply;

    const char *interval_started;
    const char *interval_updated;
    const char *times_started;
    const char *times_updated;
    const char *interval_stopped;
    const char *times_stopped;
};

task restart{
    .rule = "automatic_restart",
    .name = "Automatic Restart",
    .command = "/sbin/reboot",
    .interval_path = "/usr/local/packages/Vandrel/localdata/automatic_restart_interval.info",
    .times_path = "/usr/local/packages/Vandrel/localdata/automatic_restart_times.info",
    .fired_path = "/usr/local/packages/Vandrel/localdata/automatic_restart_fired.info",
    .interval = automatic_restart_interval,
    .length = nbr_of_ticks_until_activation,
    .start = starting_tick,
    .times = automatic_restart_given_times,
    .interval_reply = "Automatic restart rule has been set.\r\n",
    .times_reply = "Automatic restart rule has been set.\r\n",
    .interval_stopped_reply = "Automatic restart rule has been stopped.\r\n",
    .times_stopped_reply = "Automatic restart rule at given times has been stopped.\r\n",
    .interval_started = "Started Automatic Restart",
    .interval_updated = "Updated Automatic Restart Interval",
    .times_started = "Started Automatic Restart Times",
    .times_updated = "Updated Automatic Restart Times",
    .interval_stopped = "Stopped Automatic Restart",
    .times_stopped = "Stopped Automatic Restart Times",
};

task ptz_test{
    .rule = "automatic_ptz_test",
    .name = "Automatic PTZ Test",
    .command = "dbus-send --system --type=method_call --print-reply --reply-timeout=3000 "
               "--dest=com.tarvo.PTZ.Coordinator /com/tarvo/PTZ/Coordinator/1 "
               "com.tarvo.PTZ.Coordinator.Auxiliary string:\"Operator\" int32:0 string:\"reset\"",
    .interval_path = "/usr/local/packages/Vandrel/localdata/automatic_PTZ_test_interval.info",
    .times_path = "/usr/local/packages/Vandrel/localdata/automatic_PTZ_test_times.info",
    .fired_path = nullptr,
    .interval = ptz_test_interval,
    .length = ptz_nbr_of_ticks_until_activation,
    .start = ptz_starting_tick,
    .times = ptz_test_given_times,
    .interval_reply = "Automatic PTZ test has been set.\r\n",
    .times_reply = "PTZ test rule has been set.\r\n",
    .interval_stopped_reply = "Automatic PTZ test has been stopped.\r\n",
    .times_stopped_reply = "PTZ test rule at given times has been stopped.\r\n",
    .interval_started = "Started automatic PTZ test",
    .interval_updated = "Updated automatic PTZ test interval",
    .times_started = "Started PTZ Test Times",
    .times_updated = "Updated PTZ Test Times",
    .interval_stopped = "Stopped automatic PTZ testing",
    .times_stopped = "Stopped PTZ Times",
};

std::chrono::steady_clock::time_point read_at; // the start of the daemon

// --- Acting

// One countdown's part of a tick: announced one tick ahead, true when it is due. All in unsigned
// arithmetic; the tick count starts again at 0 and the countdown with it.
bool is_due(const task &what, unsigned long tick) {
    if (tick == 0) {
        what.start = 0;
    }
    if (what.start + what.length - tick == 1) {
        log_warning("%s", what.name);
    }
    return tick - what.start >= what.length;
}

bool has_entry(std::string_view times, std::string_view wanted) {
    while (true) {
        const std::size_t comma = times.find(',');
        if (times.substr(0, comma) == wanted) {
            return true;
        }
        if (comma == std::string_view::npos) {
            return false;
        }
        times.remove_prefix(comma + 1);
    }
}

// Two or three timer ticks fall into each minute, but a time fires once. Times up to the last one
// fired don't fire again on its date: the clock goes back when the network sets it, at each boot of
// a device without a battery, and when summer time ends.
void act_at_times(task &what, const std::string &date_and_time) {
    constexpr std::size_t date_length = 11; // "2026-11-21 "
    if (what.interval || !what.times || date_and_time.size() <= date_length ||
        !has_entry(*what.times, std::string_view(date_and_time).substr(date_length)) ||
        (what.fired.starts_with(date_and_time.substr(0, date_length)) &&
         date_and_time <= what.fired)) {
        return;
    }
    log_warning("%s", what.name);
    what.fired = date_and_time;
    if (what.fired_path != nullptr) {
        file_replace(what.fired_path, what.fired + "\n");
    }
    (void)system_ret(what.command);
}

// --- Reading back

void read_task(task &what) {
    what.interval = false;
    what.start = 0;
    what.length = 0;
    std::string line;
    if (const unique_file file = file_open(what.interval_path, "r")) {
        while (read_line(file.get(), interval_line_max, line)) {
            if (const std::size_t at = line.find("T:"); at != std::string::npos) {
                what.length =
                    static_cast<unsigned long>(decimal_prefix_unsigned(line.c_str() + at + 2));
            }
        }
        what.interval = what.length != 0;
    }
    if (const unique_file file = file_open(what.times_path, "r")) {
        if (read_line(file.get(), times_max + 1, line)) {
            str_terminate_at(line, '\n');
            what.times = line;
        }
    }
    what.fired.clear();
    if (const unique_file file =
            file_open(what.fired_path != nullptr ? what.fired_path : "", "r")) {
        (void)read_line(file.get(), interval_line_max, what.fired);
        str_terminate_at(what.fired, '\n');
    }
    errno = 0;
}

// --- The action

constexpr const char *no_action = "Error: Status unknown, no action.\r\n";

// Whether one of the entries is a time of day: "HH:MM".
bool holds_a_time(std::string_view times) {
    const auto digit = [](char ch) { return ch >= '0' && ch <= '9'; };
    while (true) {
        const std::size_t comma = times.find(',');
        const std::string_view entry = times.substr(0, comma);
        if (entry.size() == 5 && digit(entry[0]) && digit(entry[1]) && entry[2] == ':' &&
            digit(entry[3]) && digit(entry[4]) && entry.substr(0, 2) < "24" && entry[3] < '6') {
            return true;
        }
        if (comma == std::string_view::npos) {
            return false;
        }
        times.remove_prefix(comma + 1);
    }
}

const char *set_interval(task &what, const char *argument) {
    const long long minutes = decimal_prefix(argument);
    if (minutes <= interval_too_short) {
        return "Too short interval set (must exceed 2 minutes)\r\n";
    }
    const auto length = static_cast<unsigned long>(minutes);
    file_replace(what.interval_path, format_text("T:%lu\n", length));
    what.start = timer_count;
    what.length = length;
    log_info("%s: Every %lu hours.", what.interval ? what.interval_updated : what.interval_started,
             length / 60);
    what.interval = true;
    return what.interval_reply;
}

const char *set_times(task &what, const char *argument) {
    std::string times = argument;
    const bool first = !what.times;
    if (first) { // later ones are used as they are
        str_terminate_at(times, '\n');
        str_terminate_at(times, '"');
    }
    if (std::strlen(argument) > times_max || !holds_a_time(times)) {
        return "Error: argument not specified.\r\n";
    }
    file_replace(what.times_path, format_text("%s\n", argument));
    log_info("%s: %s", first ? what.times_started : what.times_updated, times.c_str());
    what.times = times;
    return what.times_reply;
}

const char *stop(task &what) {
    if (what.interval) {
        what.interval = false;
        // For both tasks the restart's count is reset and its length logged: kept, clients see it.
        starting_tick = 0;
        file_remove(what.interval_path);
        log_info("%s: Every %lu hours.", what.interval_stopped, nbr_of_ticks_until_activation / 60);
        return what.interval_stopped_reply;
    }
    if (what.times) {
        file_remove(what.times_path);
        if (what.fired_path != nullptr) {
            file_remove(what.fired_path);
        }
        what.fired.clear();
        log_info("%s: %s.", what.times_stopped, what.times->c_str());
        what.times.reset();
        return what.times_stopped_reply;
    }
    return no_action;
}

std::string change_task(task &what, const char *status, const char *argument) {
    if (status == nullptr) {
        return "Error: status not specified.\r\n";
    }
    const std::string_view wanted = status;
    if (wanted == "stop") {
        return stop(what);
    }
    if (wanted != "set_interval" && wanted != "set_times") {
        return no_action;
    }
    if (argument == nullptr) {
        return "Error: argument not specified.\r\n";
    }
    return wanted == "set_interval" ? set_interval(what, argument) : set_times(what, argument);
}

constexpr const char *no_file = "Error: could not open file.\r\n";

std::string set_syslog_server(const char *address) {
    if (address == nullptr || !vdrl_syslog_remote_is_address(address)) {
        return "Error: no address given.\r\n";
    }
    switch (vdrl_syslog_remote_setup(address)) {
    case syslog_remote_rsyslog:
        return "Remote server changed.\r\n";
    case syslog_remote_syslog_ng:
        return format_text("Remote server changed to: %s\r\n", address);
    default:
        return no_file;
    }
}

std::string remove_syslog_server() {
    const bool removed = vdrl_syslog_remote_remove() != -1;
    vdrl_syslog_remote_restart_syslog();
    return removed ? "Remote syslog server was removed.\r\n" : no_file;
}

std::string change_syslog_server(const char *status, const char *argument) {
    const std::string_view wanted = status == nullptr ? "set" : status;
    if (wanted == "set") {
        return set_syslog_server(status == nullptr ? nullptr : argument);
    }
    if (wanted == "remove") {
        return remove_syslog_server();
    }
    if (wanted == "test") {
        log_info("Syslog: %s This is a test message. The configuration worked if you see this "
                 "message in your syslog server!",
                 date_format_now("%Y-%m-%d %H:%M:%S").c_str());
        return "Test message in the log sent.\r\n";
    }
    return "";
}

} // namespace

void read_scheduled_tasks() {
    read_task(restart);
    read_task(ptz_test);
    read_at = std::chrono::steady_clock::now();
}

void scheduled_tasks_tick(unsigned long tick) {
    if (restart.interval && is_due(restart, tick)) {
        (void)system_ret(restart.command);
    }
    if (ptz_test.interval && is_due(ptz_test, tick)) {
        (void)system_ret(ptz_test.command);
        ptz_test.start = tick;
    }
}

gboolean scheduled_tasks_timer_callback(gpointer) noexcept {
    const std::string date_and_time = date_format_now("%Y-%m-%d %H:%M");
    act_at_times(ptz_test, date_and_time);
    if (std::chrono::steady_clock::now() - read_at >= restart_pause) {
        act_at_times(restart, date_and_time);
    }
    return G_SOURCE_CONTINUE;
}

gboolean reload_httpd_now(gpointer) noexcept {
    (void)system_ret("systemctl reload httpd");
    return G_SOURCE_REMOVE;
}

void action_miscellaneous(GDataOutputStream *stream, GHashTable *arguments) {
    const char *rule = http_argument(arguments, "rule");
    const char *status = http_argument(arguments, "status");
    const char *argument = http_argument(arguments, "argument");
    const std::string_view wanted = rule == nullptr ? "" : rule;
    std::string reply;
    if (rule == nullptr) {
        reply = "Error: rule not specified.\r\n";
    } else if (wanted == restart.rule) {
        reply = change_task(restart, status, argument);
    } else if (wanted == ptz_test.rule) {
        reply = change_task(ptz_test, status, argument);
    } else if (wanted == "syslog_server") {
        reply = change_syslog_server(status, argument);
    } else {
        return; // no reply at all: the web server makes its own
    }
    http_reply(stream, http_status::ok, content_type::text, reply);
}
