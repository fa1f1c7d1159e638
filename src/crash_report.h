// Crash reports: archives of all that the package's debug script finds out about the device. Main
// loop only.
#pragma once

#include <string>

// Starts a report in the running session, if there is one. Returns once the script has collected
// the state of the moment; it dumps processes in the background. False, logged, on failure.
bool create_crash_report_snapshot();

// The same into FOLDER/Crash_Reports; sets crash_report_being_created.
bool crash_report_snapshot(const std::string &folder);

// Ends the generator of an unfinished report of the session and waits, for a bounded time, until
// what was collected is packed.
void finish_crash_report(const std::string &session_directory);
