#include "ptz.h"

#include "log.h"
#include "strutil.h"
#include "sysutil.h"

namespace {

constexpr std::size_t presets_line_max = 4095;
constexpr std::size_t monitor_line_max = 1023;
constexpr std::size_t name_max = 255;
constexpr std::size_t presets_max = 1000; // what any head has, many times over

std::vector<std::string> read_preset_names() {
    command_pipe service("gdbus call -y -d com.tarvo.Ptz1 -o /com/tarvo/Ptz1/Channel/1 -m "
                         "com.tarvo.Ptz1.Channel.GetPresets");
    preset_names presets;
    std::string line;
    while (service.next_line(presets_line_max, line) && preset_names_take(presets, line)) {
    }
    return std::move(presets.names);
}

void log_movement(const std::vector<std::string> &names, int status, unsigned long long number) {
    constexpr int reached = 1;
    constexpr int moving = 2;
    if (number == 0 || number > names.size()) {
        return;
    }
    const char *name = names[static_cast<std::size_t>(number - 1)].c_str();
    if (status == moving) {
        log_info("Preset Movement: Preset Moving \"%s\"", name);
    } else if (status == reached) {
        log_info("Preset Movement: Preset Reached \"%s\" reached", name);
    }
}

} // namespace

void ptz_loop() {
    log_info("Entering %s", __func__);
    const std::vector<std::string> names = read_preset_names();
    if (names.empty()) {
        log_info("Could not get PTZ preset names, probably due to old firmware. PTZ preset "
                 "movement tracking have been disabled.");
        return;
    }
    command_pipe monitor("gdbus monitor -y -d com.tarvo.Ptz1 -o /com/tarvo/Ptz1/Channel/1");
    std::string line;
    while (monitor.next_line(monitor_line_max, line)) {
        if (const auto movement = parse_preset_status(line)) {
            log_movement(names, movement->first, movement->second);
        }
    }
}

// (uint32 3, ['Home', 'Main gate', "Bob's door"])
bool preset_names_take(preset_names &presets, std::string_view line) {
    if (presets.first_line) {
        presets.first_line = false;
        const auto blank = line.find(' ');
        if (blank == std::string_view::npos || decimal_prefix(line.substr(blank + 1)) <= 0) {
            return false;
        }
    }
    for (const char ch : line) {
        if (presets.quote == '\0' && (ch == '\'' || ch == '"')) {
            if (presets.names.size() == presets_max) {
                return false;
            }
            presets.quote = ch;
            presets.names.emplace_back();
        } else if (ch == presets.quote) {
            presets.quote = '\0';
        } else if (presets.quote != '\0' && presets.names.back().size() < name_max) {
            presets.names.back() += ch;
        }
    }
    return true;
}

// "/com/tarvo/Ptz1/Channel/1: org.freedesktop.DBus.Properties.PropertiesChanged
// ('com.tarvo.Ptz1.Channel', {'PresetStatus': <(uint32 2, uint32 2)>}, @as [])", in one line
std::optional<std::pair<int, unsigned long long>> parse_preset_status(std::string_view line) {
    constexpr std::string_view marker = "'PresetStatus':";
    const auto start = line.find(marker);
    if (start == std::string_view::npos ||
        line.find("org.freedesktop.DBus.Properties.PropertiesChanged") == std::string_view::npos) {
        return std::nullopt;
    }
    line.remove_prefix(start + marker.size());
    const auto open = line.find('(');
    std::size_t blanks[3]; // before the status, before the second type, before the number
    std::size_t from = open;
    for (std::size_t &blank : blanks) {
        blank = from == std::string_view::npos ? from : line.find(' ', from);
        from = blank == std::string_view::npos ? blank : blank + 1;
    }
    if (from == std::string_view::npos || from >= line.size()) {
        return std::nullopt;
    }
    const char status = line[blanks[0] + 1];
    if (status < '0' || status > '9') {
        return std::nullopt;
    }
    return std::pair(status - '0', decimal_prefix_unsigned(line.substr(from)));
}
