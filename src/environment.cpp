#include "environment.h"

#include "app_state.h"
#include "csv.h"
#include "fileutil.h"
#include "glib_ptr.h"
#include "log.h"
#include "process_list.h"
#include "session_globals.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fnmatch.h>
#include <set>
#include <unistd.h>

int number_of_temperature_sensors = 0;
std::vector<std::string> temperature_sensor_names;
int number_of_heaters = 0;
int number_of_fans = 0;

namespace {

constexpr std::size_t invoker_command_size = 250;
constexpr std::size_t vela_command_size = 256;
constexpr unsigned collector_folder = 0666; // permissions; the daemon's rights go beyond

// Lines read of a reply; a dictionary of all items needs a tenth.
constexpr std::size_t reply_lines_max = 1000;
constexpr std::size_t reply_line_max = 255;
constexpr std::size_t stream_line_max = 199;

constexpr const char *temperature_controller =
    "dbus-send --system --print-reply --reply-timeout=1000 "
    "--dest=com.tarvo.TemperatureController --type=method_call "
    "/com/tarvo/TemperatureController com.tarvo.TemperatureController.";
constexpr const char *streamer =
    "dbus-send --system --print-reply  --reply-timeout=1000 --dest=com.tarvo.Streamer "
    "/com/tarvo/Streamer/Cache com.tarvo.Streamer.Cache.GetStreams | grep string | sort";

bool is_digit(char ch) {
    return ch >= '0' && ch <= '9';
}

device_condition condition;
video_streams streams_seen;

// The first reply_lines_max lines of a command's output, each truncated at line_max.
reply_lines read_reply(const std::string &command, std::size_t line_max) {
    command_pipe pipe(command.c_str());
    reply_lines lines;
    std::string piece;
    bool continues = false; // the last piece did not end its line
    while (lines.size() < reply_lines_max && pipe.next_line(line_max, piece)) {
        const bool is_start = !continues;
        continues = !str_terminate_at(piece, '\n');
        if (is_start) {
            lines.push_back(piece);
        }
    }
    return lines;
}

std::string controller_command(const std::string &method) {
    return temperature_controller + method;
}

reply_lines ask_controller(const std::string &method) {
    return read_reply(controller_command(method), reply_line_max);
}

int ask_count(const char *method) {
    return std::clamp(parse_count(ask_controller(method)), 0, condition_items_max);
}

// The text behind the first blank behind `word`: the value in `   double 41.5`.
std::optional<std::string> word_after(const std::string &line, const char *word) {
    const auto start = line.find(word);
    const auto blank = start == std::string::npos ? start : line.find(' ', start);
    return blank == std::string::npos ? std::nullopt : std::optional(line.substr(blank + 1));
}

// `         int32 7`: whether the line is the dictionary's key, of a type that `type` is a part of.
bool is_key(const std::string &line, const char *type, int number) {
    const auto found = word_after(line, type);
    return found && plain_decimal(*found) == static_cast<unsigned long long>(number);
}

// `         string "Running"`; the reply's lines are not escaped.
std::optional<std::string> text_in_quotes(const std::string &line) {
    const auto open =
        line.find("string ") == std::string::npos ? std::string::npos : line.find('"');
    const auto close = open == std::string::npos ? open : line.find('"', open + 1);
    return close == std::string::npos ? std::nullopt
                                      : std::optional(line.substr(open + 1, close - open - 1));
}

std::string lower_case(const std::string &text) {
    return gchar_ptr(g_ascii_strdown(text.c_str(), -1)).get();
}

// Appends a row for the value, if there is one, and remembers it.
void store_value(const std::string &directory, const std::string &file, const char *header,
                 const std::string &name, const std::optional<std::string> &value,
                 std::vector<device_condition::value> &last) {
    if (value) {
        last.push_back({name, *value});
        append_rows(directory + "/" + file, header, row_time() + "," + *value + "\n");
    }
}

// --- Radar

constexpr const char *radar_folder = "/tmp/radar-diagnostics";

void copy_radar_file(const std::string &name, const std::string &folder) {
    const bool once = ::fnmatch("radar_*.data", name.c_str(), 0) == 0;
    if (!once && ::fnmatch("instqual_lt_stats_*.csv", name.c_str(), 0) != 0) {
        return;
    }
    const std::string target = folder + "/" + name;
    const bool is_there = ::access(target.c_str(), F_OK) == 0;
    if (!is_there && errno != ENOENT) {
        log_warning("access() failed for %s: %s", target.c_str(), std::strerror(errno));
        errno = 0;
        return;
    }
    errno = 0;
    if (!is_there || !once) {
        (void)file_copy_whole((std::string(radar_folder) + "/" + name).c_str(), target.c_str());
    }
}

} // namespace

const device_condition &last_condition() {
    return condition;
}

const video_streams &last_video_streams() {
    return streams_seen;
}

void init_environment_monitor_settings() {
    number_of_temperature_sensors = ask_count("GetNbrOfTemperatureSensors");
    number_of_heaters = ask_count("GetNbrOfHeaters");
    number_of_fans = ask_count("GetNbrOfFans");
    temperature_sensor_names.clear();
    // The other files of the folder. A card's names know no upper and lower case.
    std::set<std::string> taken{"power"};
    for (int i = 0; i < std::max(number_of_heaters, number_of_fans); ++i) {
        taken.insert(format_text("heater_%d", i));
        taken.insert(format_text("fan_%d", i));
    }
    for (int i = 0; i < number_of_temperature_sensors; ++i) {
        std::string name =
            parameter_get(format_text("root.TemperatureControl.Sensor.S%d.Name", i).c_str())
                .value_or("");
        str_replace_char(name, ' ', '_');
        name = name.empty() ? format_text("Sensor_%d", i) : file_name_of(name);
        while (!taken.insert(lower_case(name)).second) {
            name += format_text("_%d", i);
        }
        temperature_sensor_names.push_back(name);
    }
}

void store_temperatures_celsius(const std::string &environment_directory) {
    make_folder(environment_directory.c_str(), collector_folder);
    condition.temperatures.clear();
    condition.time = std::chrono::steady_clock::now();
    if (number_of_temperature_sensors == 0) {
        return;
    }
    // One answer holds all sensors' values.
    const reply_lines reply = ask_controller("GetAllTemperatures string:0");
    for (int i = 0; i < number_of_temperature_sensors; ++i) {
        const std::string &name = temperature_sensor_names[static_cast<std::size_t>(i)];
        store_value(environment_directory, name + ".csv", "Date, Time, Temperature (Celsius)\n",
                    name, parse_temperature(reply, i), condition.temperatures);
    }
}

void store_heater_status(const std::string &environment_directory) {
    make_folder(environment_directory.c_str(), collector_folder);
    condition.heaters.clear();
    for (int i = 0; i < number_of_heaters; ++i) {
        const reply_lines reply = ask_controller(format_text("GetHeaterStatus int32:%d", i));
        store_value(environment_directory, format_text("Heater_%d.csv", i),
                    "Date, Time, Heater status\n", std::to_string(i), parse_heater_status(reply),
                    condition.heaters);
    }
}

void store_fan_status(const std::string &environment_directory) {
    make_folder(environment_directory.c_str(), collector_folder);
    condition.fans.clear();
    if (number_of_fans == 0) {
        return;
    }
    const std::string command = controller_command("GetAllFanStatus");
    const reply_lines reply = read_reply(command, reply_line_max);
    for (int i = 0; i < number_of_fans; ++i) {
        store_value(environment_directory, format_text("Fan_%d.csv", i), "Date, Time, Fan status\n",
                    std::to_string(i), parse_fan_status(reply, i, command), condition.fans);
    }
}

void store_self_monitoring(const std::string &self_directory) {
    constexpr std::size_t top_line_max = 511;
    make_folder(self_directory.c_str(), collector_folder);
    command_pipe top("top -n 1 -b");
    std::string line;
    std::optional<std::pair<int, int>> share;
    while (!share && top.next_line(top_line_max, line)) {
        share = parse_top_line(line, ::getpid());
    }
    errno = 0;
    if (!share) {
        log_error("Failed to get top for Vandrel");
        return;
    }
    append_rows(self_directory + "/Vandrel_summary.csv", "Date,Time,%Vsz,%Cpu\n",
                format_text("%s,%d,%d\n", row_time().c_str(), share->first, share->second));
}

void store_video_stream_history_no_retention(const std::string &session_directory) {
    const std::string folder =
        format_bounded(session_directory_size, "%s/%s/%s", session_directory.c_str(),
                       "system_monitoring", "monitoring_streams");
    make_folder(folder.c_str(), collector_folder);
    const std::string time = row_time();
    const reply_lines reply = read_reply(streamer, stream_line_max);
    streams_seen = {std::chrono::steady_clock::now(), {}};
    for (const std::string &line : reply) {
        if (auto stream = text_in_quotes(line)) {
            streams_seen.streams.push_back(std::move(*stream));
        }
    }
    append_rows(folder + "/stream.csv", "Date,Time,Streams\r\n",
                time + "," + join_streams(reply) + "\r\n");
}

void store_radar_data(const std::string &session_directory) {
    const unique_folder source(::opendir(radar_folder));
    if (!source) {
        errno = 0;
        return;
    }
    const std::string folder =
        format_bounded(session_directory_size, "%s/%s/%s", session_directory.c_str(),
                       "system_monitoring", "monitoring_radar");
    make_folder(folder.c_str(), collector_folder);
    while (const dirent *entry = ::readdir(source.get())) {
        copy_radar_file(entry->d_name, folder);
    }
}

void shellscript_invoker(const std::string &directory, const std::string &script_name) {
    if (ps_grep_and_check_if_included("Vandrel", script_name)) {
        return;
    }
    (void)system_ret(format_bounded(invoker_command_size, "/usr/local/packages/Vandrel/%s.sh %s &",
                                    script_name.c_str(), directory.c_str())
                         .c_str());
}

void vela_monitor_status_snapshot(const std::string &session_directory) {
    (void)system_ret(
        format_bounded(vela_command_size,
                       "/usr/local/packages/Vandrel/vela_status_monitor.sh \"%s/%s/%s\" &",
                       session_directory.c_str(), "system_monitoring", "monitoring_vela")
            .c_str());
}

// "   int32 3"
int parse_count(const reply_lines &reply) {
    const auto number = reply.empty() ? std::nullopt : word_after(reply.back(), "int");
    return number ? static_cast<int>(std::clamp<long long>(decimal_prefix(*number), 0, 1'000'000))
                  : 0;
}

//       dict entry(
//          int32 0
//          double 41.5
//       )
std::optional<std::string> parse_temperature(const reply_lines &reply, int sensor) {
    for (std::size_t i = 0; i + 1 < reply.size(); ++i) {
        if (is_key(reply[i], "int", sensor)) {
            return word_after(reply[i + 1], "double");
        }
    }
    return std::nullopt;
}

std::optional<std::string> parse_heater_status(const reply_lines &reply) {
    for (const std::string &line : reply) {
        if (line.find("string ") != std::string::npos) {
            return text_in_quotes(line);
        }
    }
    return std::nullopt;
}

std::optional<std::string> parse_fan_status(const reply_lines &reply, int fan,
                                            const std::string &command) {
    for (std::size_t i = 0; i < reply.size(); ++i) {
        if (!is_key(reply[i], "int32", fan)) {
            continue;
        }
        if (i + 1 == reply.size()) {
            log_warning("Could not fgets value from %s", command.c_str());
            return std::nullopt;
        }
        if (reply[i + 1].find("string ") != std::string::npos) {
            return text_in_quotes(reply[i + 1]);
        }
        errno = 0;
        log_error("Expected string value, got %s", reply[i + 1].c_str());
    }
    return std::nullopt;
}

//       string "media=video/x-h264 resolution=1920x1080 fps=25"
std::string join_streams(const reply_lines &reply) {
    constexpr std::size_t type_length = 7; // of "string", and the blank behind it
    std::string streams;
    for (std::string line : reply) {
        const auto type = line.find("string");
        const bool is_error = line.starts_with("Error ");
        if (type == std::string::npos && !is_error) {
            continue;
        }
        str_replace_char(line, '"', ' ');
        streams += streams.empty() ? "" : "+";
        streams += is_error ? "Error: Failed to get stream info"
                            : line.substr(std::min(type + type_length, line.size()));
    }
    return streams.empty() ? "No streams " : streams;
}

//   "  412     1 root     S     8312   0%   1% /usr/local/packages/Vandrel/Vandrel"
std::optional<std::pair<int, int>> parse_top_line(std::string_view line, long pid) {
    const auto start = line.find_first_of("0123456789");
    if (start == std::string_view::npos || decimal_prefix(line.substr(start)) != pid) {
        return std::nullopt;
    }
    // What ends at `percent`: "12.5" is 12.
    const auto number_before = [line](std::size_t percent) {
        std::size_t first = percent;
        while (first > 0 && (is_digit(line[first - 1]) || line[first - 1] == '.')) {
            --first;
        }
        return static_cast<int>(
            std::min<long long>(decimal_prefix(line.substr(first, percent - first)), 1'000'000));
    };
    const auto memory = line.find('%');
    const auto processor = memory == std::string_view::npos ? memory : line.find('%', memory + 1);
    if (processor == std::string_view::npos) {
        return std::nullopt;
    }
    return std::pair(number_before(memory), number_before(processor));
}
