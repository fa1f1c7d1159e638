// The lists that the package's scripts make: of the sessions on all storages, and of the platform's
// event-to-action rules. Main loop only.
#pragma once

#include <optional>
#include <string>

// Has the platform's event-to-action rules recorded, and waits.
void collect_action_rules();

// Updates the lists of sessions and waits: of one device's, or of all devices'.
void collect_monitoring_sessions(const std::optional<std::string> &serial);
// The same in the background, for this device or all as collect_only_from_this_camera says; nothing
// is done while it still runs. Returns 0.
int wait_and_collect_monitoring_sessions();
