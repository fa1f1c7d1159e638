// The kernel's core pattern: pointed at a session's folder, and restored. Main loop only.
#pragma once

#include <optional>
#include <string>

// Has cores written into the folder (its path ends in "/") and keeps the previous pattern; the
// device's standard one if the previous one was left behind by an earlier run. Failures are logged;
// crash detection is not set up unless the previous pattern could be kept.
void set_core_pattern(const std::string &path);

// Retries a write that failed in set_core_pattern; logs nothing if it fails again.
void renew_core_pattern();

// Writes the kept pattern back, or the device's standard one, and forgets it in any case.
void reset_core_pattern();

// The kept pattern as it was read; none while crash detection is not set up.
const std::optional<std::string> &get_core_pattern();

// Whether the pattern still points at the session of an earlier run.
bool core_pattern_is_left_behind();
