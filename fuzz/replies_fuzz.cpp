// Feeds the parsers of what services, tools and the kernel print: the first byte of an input
// chooses the parser, the rest is the print. Fails when memory or arithmetic goes wrong, when a
// print ends the process, and when a result is larger than what its users have room for.
#include "environment.h"
#include "eventlistener.h"
#include "filehandler.h"
#include "key_filter.h"
#include "log.h"
#include "ptz.h"
#include "storage_investigator.h"
#include "vdrl_capture.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

// A service's value ends up in one column of a row.
void require_column(const std::optional<std::string> &value) {
    require(!value || value->find('\n') == std::string::npos, "a value of more than one line");
}

reply_lines lines_of(const std::string &print) {
    reply_lines lines;
    for (std::size_t start = 0; start < print.size();) {
        const std::size_t end = std::min(print.find('\n', start), print.size());
        lines.push_back(print.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// --- The parsers

void controller(const std::string &print) {
    const reply_lines reply = lines_of(print);
    require(parse_count(reply) >= 0, "a negative count");
    for (const int item : {0, 1, condition_items_max - 1}) {
        require_column(parse_temperature(reply, item));
        require_column(parse_fan_status(reply, item, "COMMAND"));
    }
    require_column(parse_heater_status(reply));
}

void streamer(const std::string &print) {
    const std::string streams = join_streams(lines_of(print));
    require(!streams.empty() && streams.find('"') == std::string::npos, "no column of streams");
    require_column(streams);
}

void top(const std::string &print) {
    for (const std::string &line : lines_of(print)) {
        const auto share = parse_top_line(line, 1);
        require(!share || (share->first >= 0 && share->second >= 0), "a negative share");
    }
}

void events(const std::string &print) {
    eventlistener_Event event;
    for (const std::string &line : lines_of(print)) {
        if (eventlistener_take_line(event, line.c_str())) {
            log_event(event);
            event = {};
        }
        for (const std::string &topic : event.topics) {
            require(topic.size() <= 47, "a long topic");
        }
        require(event.timestamp.size() <= 31 && event.onvif_source.size() <= 127 &&
                    event.onvif_data_property_state.size() <= 127,
                "a long text of an event");
    }
}

void ptz_presets(const std::string &print) {
    preset_names presets;
    for (std::size_t start = 0; start < print.size(); start += 100) { // cut anywhere
        if (!preset_names_take(presets, std::string_view(print).substr(start, 100))) {
            break;
        }
    }
    require(presets.names.size() <= 1000, "too many presets");
    for (const std::string &name : presets.names) {
        require(name.size() <= 255, "a long name of a preset");
    }
}

void ptz_movements(const std::string &print) {
    for (const std::string &line : lines_of(print)) {
        const auto movement = parse_preset_status(line);
        require(!movement || (movement->first >= 0 && movement->first <= 9), "an odd status");
    }
}

void resolutions(const std::string &print) {
    const auto size = parse_largest_resolution(print);
    require(!size || (size->first > 0 && size->second > 0), "a picture without a size");
}

void kernel_files(const std::string &print) {
    net_dev_values values;
    if (!parse_proc_net_dev(print, values)) {
        for (const interface_row &row : interface_rows(values)) {
            require(row.file_name.find('/') == std::string::npos, "an interface in another folder");
        }
    }
    (void)parse_buddyinfo(print);
    for (const std::string &line : lines_of(print)) {
        (void)parse_load_average(line);
        (void)parse_meminfo_line(line);
        require(parse_vmstat_line(line).find_first_not_of("0123456789") == std::string::npos,
                "a counter of more than digits");
        const auto slab = parse_slab_line(line);
        require(!slab || slab->numbers.find(' ') == std::string::npos, "a number with a blank");
    }
}

void storages(const std::string &print) {
    storage_reply_reader reader("SD_DISK");
    for (const std::string &line : lines_of(print)) {
        reader.take_line(line);
    }
    (void)reader.is_healthy();
}

// The first line is the key, what follows is searched.
void key_filters(const std::string &print) {
    const std::size_t end = print.find('\n');
    if (end == 0 || end == std::string::npos) {
        return;
    }
    const std::string text = print.substr(end + 1);
    const std::string key = print.substr(0, end);
    const key_filter filter = filter_of(key);
    require(text.find(key) == std::string::npos || may_contain(pairs_of(text.c_str()), filter),
            "a line with the key is filtered out");
    require(may_contain(pairs_of((text + key).c_str()), filter), "the key is filtered out");
}

constexpr void (*parsers[])(const std::string &) = {
    controller,    streamer,    top,          events,   ptz_presets,
    ptz_movements, resolutions, kernel_files, storages, key_filters};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    log_set_sink([](int, const std::string &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > 0) {
        // What is read of a print ends at a NUL byte, as of any text.
        const auto *text = reinterpret_cast<const char *>(data) + 1;
        parsers[data[0] % std::size(parsers)](std::string(text, ::strnlen(text, size - 1)));
    }
    return 0;
}
