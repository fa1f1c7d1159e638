#include "debug_mode.h"

unsigned long advanced_debug_mode_crash_recurrence = 0;
unsigned long advanced_debug_mode_crash_recurrence_tick = 0;
bool advanced_debug_mode_crash_interval_activated = false;
std::atomic<bool> advanced_debug_mode_crash_log_message_activated = false;
int crash_report_being_created = 0;
