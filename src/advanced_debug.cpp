#include "advanced_debug.h"

#include "log.h"

void crash_report_log_message_callback(guint, TVEvent *event, gpointer) noexcept {
    tv_event_free(event);
    log_info("Advanced Debug Mode: Found log message.");
}
