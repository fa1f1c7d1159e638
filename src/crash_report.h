// Crash reports: archives of all that the package's debug script finds out about the device. Main
// loop only.
#pragma once

#include <string>

// Makes one into the running session, if there is one. The script returns once its archive is under
// way: the rest, which dumps processes, goes on behind it. False, and logged, when it was not
// begun.
bool create_crash_report_snapshot();

// Makes one into the folder "Crash_Reports" of this folder, and marks it as being created.
bool crash_report_snapshot(const std::string &folder);

// Ends the generator of one that is being made into the session and waits, for a bounded time,
// until what there is of it is packed.
void finish_crash_report(const std::string &session_directory);
