// Restarts and PTZ tests, at intervals and at times of day, and the action that sets them and the
// remote log server. Main loop only.
#pragma once

#include "http.h"

#include <glib.h>
#include <optional>
#include <string>

// What is set, in main-timer ticks (one a minute); written at start and by the action.
extern bool automatic_restart_interval;
extern unsigned long starting_tick;
extern unsigned long nbr_of_ticks_until_activation;
extern std::optional<std::string> automatic_restart_given_times; // "08:00,20:30"
extern bool ptz_test_interval;
extern unsigned long ptz_starting_tick; // also by the main timer, when a test has been run
extern unsigned long ptz_nbr_of_ticks_until_activation;
extern std::optional<std::string> ptz_test_given_times;

// Reads back what an earlier run has stored; intervals count from now on. Once, at start.
void read_scheduled_tasks();

// The intervals' part of a main-timer tick.
void scheduled_tasks_tick(unsigned long tick);

// The 30-second timeout: the times of day. Always TRUE: it stays installed.
gboolean scheduled_tasks_timer_callback(gpointer) noexcept;

// A one-shot callback: lets the web server read its configuration again. Returns FALSE.
gboolean reload_httpd_now(gpointer) noexcept;

// The action: "rule" is automatic_restart, automatic_ptz_test or syslog_server.
void action_miscellaneous(GDataOutputStream *stream, GHashTable *arguments);
