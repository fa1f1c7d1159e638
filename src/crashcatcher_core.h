// The kernel's pattern for core dumps: turned to a session's folder and back. Main loop only.
#pragma once

#include <optional>
#include <string>

// Has cores written into the folder (its path ends in "/") and keeps the pattern of before. One
// that an earlier run left behind counts as the device's standard one. Failures are logged; without
// an old pattern kept, crash detection is not set up.
void set_core_pattern(const std::string &path);

// Writes a pattern that could not be written then; quietly if it still can't be.
void renew_core_pattern();

// Writes the kept pattern back, or the device's standard one, and forgets it in any case.
void reset_core_pattern();

// The kept pattern as it was read; none while crash detection is not set up.
const std::optional<std::string> &get_core_pattern();

// Whether cores are still written into a session's folder that an earlier run has turned them to.
bool core_pattern_is_left_behind();
