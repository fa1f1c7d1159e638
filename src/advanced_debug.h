// The advanced debug mode: crash reports made on a schedule and on log messages, and the watch over
// the device's core-dump generator that they start. Main loop only.
#pragma once

#include <string>
#include <tvevent.h>

// The mode's part of a minute in which the session's storage can be used.
void advanced_debug_tick(const std::string &session_directory);

// The subscription callback of crash-report rules: makes a crash report, or gives the rule its
// match back while an earlier report is still being made. `rule` is the systemlogs_monitor_t.
void crash_report_log_message_callback(guint subscription, TVEvent *event, gpointer rule) noexcept;

// A minute's look at a report that is being made: counts crash_report_being_created up while the
// generator runs, down while it doesn't.
void advanced_debug_crash_report_check();

// Kills a generator that the process list has shown unchanged ten times in a row.
void advanced_debug_crash_report_stuck_check();
