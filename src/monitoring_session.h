// Starting, stopping and resuming a monitoring session. Main loop only.
#pragma once

#include "http.h"

#include <optional>
#include <string>

void action_activate_monitor_session(GDataOutputStream *stream, GHashTable *arguments);
void action_deactivate_monitor_session(GDataOutputStream *stream, GHashTable *arguments);

// What a request asks for; all checked before.
struct session_request {
    std::string storage;                       // "localdata" for the internal storage
    std::optional<std::string> debug_mode;     // "both", "interval" or "log"
    std::optional<std::string> log_interval;   // of scheduled crash reports, minutes
    std::optional<std::string> image_interval; // seconds
};

// Starts a session. 0 when it runs or could not be started (which the log says), 1 when the device
// must be restarted first.
int _start_monitoring_session(const session_request &request);

// Completes the session and zips it. 0, or another value when the device must be restarted to
// switch off what the session had switched on.
int deactivate_monitor_session(const std::string &session_directory);

// Takes over the session that ran before a restart, as current_monitoring_session.txt names it.
// False when it names none, or none that can be used (logged): the start is a fresh one then.
// At start.
bool resume_monitoring_session();
// The same later, for a session that waits for the serial number, once that is known.
void resume_waiting_session();

// Switches on what belongs to a running session, new or resumed. The interval is the still images'
// as text, "" for none.
void setup_session(const std::string &session_directory, const std::string &image_interval);

// Starts what a session needs on its storage and what has not been started yet, or has gone with
// the storage; called in every tick in which the storage can be used, so it costs nothing when all
// is there.
void start_what_needs_the_storage(const std::string &session_directory);

// Has the platform's event-to-action rules recorded, and waits.
void collect_action_rules();

// Updates the lists of sessions and waits: of one device's, or of all devices'.
void collect_monitoring_sessions(const std::optional<std::string> &serial);
// The same in the background, for this device or all as collect_only_from_this_camera says; nothing
// is done while it still runs. Returns 0.
int wait_and_collect_monitoring_sessions();
