// Follows the PTZ head's presets and logs when it starts to move to one and when it is there.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Body of the tracker's thread: returns when the PTZ service's monitor ends, or at once, logged,
// when the service has no presets. Shares nothing.
void ptz_loop();

// State of the parser of GetPresets' output, which is fed line by line.
struct preset_names {
    std::vector<std::string> names; // of preset 1 and up; at most 255 bytes each
    bool first_line = true;
    char quote = '\0'; // what ends the name that is being read, also in a later line
};

// Takes a line with its newline. False at the end of the list.
bool preset_names_take(preset_names &presets, std::string_view line);

// Status and number of the preset in a line of the monitor; nothing when it tells of neither.
std::optional<std::pair<int, unsigned long long>> parse_preset_status(std::string_view line);
