// The state of the advanced debug mode, in which crash reports are made on a schedule and on log
// messages. Main loop only, unless said otherwise.
#pragma once

#include <atomic>

// Period of scheduled crash reports in ticks, 0 when off, and the ticks counted since activation or
// resume; a report is due at each multiple.
extern unsigned long advanced_debug_mode_crash_recurrence;
extern unsigned long advanced_debug_mode_crash_recurrence_tick;
// The advanced debug mode: crash reports on a schedule, and on log messages. Set at activation (the
// second also when crash-report rules are read at start), cleared at deactivation.
extern bool advanced_debug_mode_crash_interval_activated;
extern std::atomic<bool> advanced_debug_mode_crash_log_message_activated; // also the log follower
// Not 0 while a crash report is being made: 1 at its start, up to 3 while ticks see the generator
// run, down by one for each tick that does not. Cleared at activation.
extern int crash_report_being_created;
