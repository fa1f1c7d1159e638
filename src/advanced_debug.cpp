#include "advanced_debug.h"

#include "crash_report.h"
#include "debug_mode.h"
#include "log.h"
#include "process_list.h"
#include "session_globals.h"
#include "strutil.h"
#include "syslog_triggers.h"
#include "sysutil.h"

#include <climits>

namespace {

constexpr int running_max = 3;        // of crash_report_being_created
constexpr int freezed_minutes = 10;   // after which a generator is killed
constexpr std::size_t line_max = 255; // of the process list
constexpr std::size_t compared = 99;  // bytes of a line that must stay the same
constexpr const char *generator = "-c /dev/stdout";

int the_same_count = 0;
std::string last_buffer; // the generator's line, cut to what is compared

// The pid of a line of the process list, which may be indented; 0 when there is none to kill.
long process_of(const std::string &line) {
    const std::size_t start = line.find_first_not_of(' ');
    const std::size_t end = line.find(' ', start);
    if (start == std::string::npos || end == std::string::npos) {
        return 0;
    }
    const auto number = plain_decimal(std::string_view(line).substr(start, end - start));
    return number && *number <= INT_MAX ? static_cast<long>(*number) : 0;
}

void compare_line(const std::string &line) {
    if (line.find(generator) == std::string::npos) {
        return;
    }
    if (the_same_count == 0) {
        last_buffer = line.substr(0, compared);
        the_same_count = 1;
    } else if (line.compare(0, compared, last_buffer) == 0) {
        ++the_same_count;
    } else {
        the_same_count = 0;
    }
}

} // namespace

void advanced_debug_tick(const std::string &) {
    const log_reaction what_is_said; // or a rule on these lines would make report after report
    if (advanced_debug_mode_crash_recurrence != 0) {
        if (advanced_debug_mode_crash_recurrence_tick % advanced_debug_mode_crash_recurrence == 0) {
            if (crash_report_being_created != 0) {
                // With a report due every minute no other tick would see the generator hang.
                advanced_debug_crash_report_stuck_check();
            }
            log_info("Advanced Debug Mode: Crash Report generation interval reached");
            log_info("Advanced Debug Mode: Generating Crash report");
            create_crash_report_snapshot();
        } else {
            advanced_debug_crash_report_check();
        }
        ++advanced_debug_mode_crash_recurrence_tick;
    } else if (advanced_debug_mode_crash_log_message_activated) {
        advanced_debug_crash_report_check();
    }
}

void crash_report_log_message_callback(guint, TVEvent *event, gpointer rule) noexcept {
    const log_reaction what_is_said;
    log_info("Advanced Debug Mode: Found log message.");
    auto &matched = *static_cast<systemlogs_monitor_t *>(rule);
    if (!storage_id) {
        log_info("Advanced Debug Mode: No crash report is made without an external storage.");
        give_match_back(matched, match_back::as_if_never);
    } else if (crash_report_being_created == 0) {
        log_info("Advanced Debug Mode: Generating Crash report.");
        if (!create_crash_report_snapshot()) {
            give_match_back(matched, match_back::with_cooldown);
        }
    } else {
        log_info("Advanced Debug Mode: Old crash report still being generated. No new crash report "
                 "will be generated. [crash_report_being_created = %d]",
                 crash_report_being_created);
        give_match_back(matched, match_back::as_if_never);
    }
    tv_event_free(event);
}

void advanced_debug_crash_report_check() {
    if (crash_report_being_created == 0) {
        return;
    }
    if (ps_grep_and_check_if_included("dcore", generator)) {
        if (crash_report_being_created < running_max) {
            ++crash_report_being_created;
        }
        advanced_debug_crash_report_stuck_check();
        return;
    }
    --crash_report_being_created;
    if (crash_report_being_created == 0) {
        log_info("Advanced Debug Mode: Generating Crash Report finished.");
    } else {
        advanced_debug_crash_report_stuck_check();
    }
}

void advanced_debug_crash_report_stuck_check() {
    command_read_lines("ps | grep dcore", line_max, compare_line);
    if (the_same_count < freezed_minutes) {
        return;
    }
    if (const long process = process_of(last_buffer); process > 0) {
        log_info("Advanced Debug Mode: dcore generating crash report for PID: %d noted to be "
                 "freezed for %d minutes. Will stop it.",
                 static_cast<int>(process), freezed_minutes);
        (void)system_ret(format_text("kill -9 %d", static_cast<int>(process)).c_str());
    }
    the_same_count = 0;
}
