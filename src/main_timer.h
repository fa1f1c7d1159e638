// The main timer: one tick a minute, for the whole life of the daemon.
#pragma once

#include <glib.h>

// The 60-second timeout. Always TRUE: it stays installed.
gboolean timer_callback(gpointer) noexcept;

// The 10-second timeout that drives the network device test. Always TRUE.
gboolean nc_timer_callback(gpointer) noexcept;
