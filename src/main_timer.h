// The main timer: one tick a minute, for the whole life of the daemon. While a session runs, a tick
// watches its storage and collects what is due.
#pragma once

#include "schedule.h"

#include <chrono>
#include <glib.h>
#include <optional>

// The 60-second timeout. Always TRUE: it stays installed.
gboolean timer_callback(gpointer) noexcept;

// The 10-second timeout that drives the network device test. Always TRUE.
gboolean nc_timer_callback(gpointer) noexcept;

// What the last tick of a session saw of the session's storage.
struct session_storage {
    std::chrono::steady_clock::time_point time; // none yet: its epoch
    bool usable = false;
    std::optional<int> percent_used;
};
const session_storage &last_session_storage();

// The schedules, in the order in which their duties run.
std::span<const duty> external_storage_schedule();
std::span<const duty> collection_block(); // run by the external schedule every second tick
std::span<const duty> internal_storage_schedule();
