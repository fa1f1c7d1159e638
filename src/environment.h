// Collectors that work through the package's scripts. Main loop only.
#pragma once

#include <string>

// Starts a script of the package in the background with a folder as its argument, unless one of
// that name still runs.
void shellscript_invoker(const std::string &directory, const std::string &script_name);

// Starts the script that writes the installed packages' status into the session.
void vela_monitor_status_snapshot(const std::string &session_directory);
