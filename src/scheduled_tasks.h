// Restarts and PTZ tests at times of day.
#pragma once

#include <glib.h>

// The 30-second timeout. Always TRUE: it stays installed.
gboolean scheduled_tasks_timer_callback(gpointer) noexcept;
