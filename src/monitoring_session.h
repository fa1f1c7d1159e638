// Starting, stopping and resuming a monitoring session.
#pragma once

#include <string>

// Takes over the session that ran before a restart, as current_monitoring_session.txt names it.
// False when it names none, or none that can be used (logged): the start is a fresh one then.
// Main thread, at start, once the serial number is known.
bool resume_monitoring_session();

// Switches on what belongs to a running session, new or resumed. The interval is the still images'
// as text, "" for none.
void setup_session(const std::string &session_directory, const std::string &image_interval);
