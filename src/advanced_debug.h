// The advanced debug mode: crash reports made on a schedule and on log messages.
#pragma once

#include <tvevent.h>

// The subscription callback of crash-report rules: makes a crash report, or gives the rule its
// match back while an earlier report is still being made. Main loop; `rule` is the
// systemlogs_monitor_t.
void crash_report_log_message_callback(guint subscription, TVEvent *event, gpointer rule) noexcept;
