// Has the kernel save dumps of its crashes onto a storage while a session runs, and copies new ones
// into the session. Main loop only.
#pragma once

#include <optional>
#include <string>

// Whether the kernel saves crash dumps now. Not being able to ask ends the process.
bool kernel_crash_enabled();

// Switches the facility on. Dumps that are already there are remembered and never copied; those
// that came since the listing of an earlier session are copied now. 1 when it only works after a
// restart of the device, else 0, also when it could not be switched on (logged). Without a serial
// number the network share is left out, here and below.
int setup_kernel_crash_monitor(const std::string &session_directory,
                               const std::optional<std::string> &serial);

// Whether the facility was switched on and still waits for the restart that this takes.
bool kernel_crash_waits_for_restart();

// Copies what has come since the last call into the session's "coredumps". Large dumps take their
// time.
void update_kernel_crash_status(const std::string &session_directory,
                                const std::optional<std::string> &serial);

// Switches the facility off and keeps the listings for the next session. 1 when it is still on
// until a restart, else 0.
int disable_kernel_crash_monitor(const std::optional<std::string> &serial);
