// Crash reports: archives of all that the package's debug script finds out about the device. Main
// loop only.
#pragma once

#include <string>

// Makes one into the running session, if there is one. The script returns once its archive is under
// way: the rest, which dumps processes, goes on behind it.
void create_crash_report_snapshot();

// Makes one into the folder "Crash_Reports" of this folder, and marks it as being created.
void crash_report_snapshot(const std::string &folder);
