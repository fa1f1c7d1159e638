// The device's own condition as rows of a session's files: temperatures, heaters, fans, video
// streams, radar diagnostics, the daemon's own cost; and the collectors that work through the
// package's scripts. Main loop only, but for the parsers, which only look at their text.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Of each kind no more is recorded.
inline constexpr int condition_items_max = 20;

// What the device has: asked for once at start.
extern int number_of_temperature_sensors;
extern std::vector<std::string> temperature_sensor_names; // as file names
extern int number_of_heaters;
extern int number_of_fans;

// Asks the temperature controller what there is (0 of each without one) and reads the sensors'
// names: "Main board" becomes "Main_board", a sensor without a name "Sensor_" and its number.
void init_environment_monitor_settings();

// What the services told the last collection, as they printed it.
struct device_condition {
    struct value {
        std::string name; // of a sensor; the number of a heater or a fan
        std::string printed;
    };
    std::chrono::steady_clock::time_point time; // none yet: its epoch
    std::vector<value> temperatures;            // Celsius
    std::vector<value> heaters;                 // "Running"
    std::vector<value> fans;
};
const device_condition &last_condition();

// The streams that the last collection found, and when.
struct video_streams {
    std::chrono::steady_clock::time_point time;
    std::vector<std::string> streams; // "media=video/x-h264 resolution=1920x1080 fps=25"
};
const video_streams &last_video_streams();

// Each appends to the session's files in the folder and makes the folder if it is missing. What the
// service does not tell gets no row.
void store_temperatures_celsius(const std::string &environment_directory);
void store_heater_status(const std::string &environment_directory);
void store_fan_status(const std::string &environment_directory);
void store_self_monitoring(const std::string &self_directory);

void store_video_stream_history_no_retention(const std::string &session_directory);

// Copies the radar's data files once each and its statistics every time.
void store_radar_data(const std::string &session_directory);

// Starts a script of the package in the background with a folder as its argument, unless one of
// that name still runs.
void shellscript_invoker(const std::string &directory, const std::string &script_name);

// Starts the script that writes the installed packages' status into the session.
void vela_monitor_status_snapshot(const std::string &session_directory);

// --- Parsers. A reply is what dbus-send printed, by lines.

using reply_lines = std::vector<std::string>;

// The number in the last line, 0 when there is none.
int parse_count(const reply_lines &reply);

// The value that belongs to a dictionary's key, as printed: "41.5"; nothing without one.
std::optional<std::string> parse_temperature(const reply_lines &reply, int sensor);

// The first text of a reply.
std::optional<std::string> parse_heater_status(const reply_lines &reply);

// The text that belongs to a dictionary's key. Logged when there is a key without a text.
std::optional<std::string> parse_fan_status(const reply_lines &reply, int fan,
                                            const std::string &command);

// The last column of a stream row for what was read of `dbus-send ... | grep string | sort`.
std::string join_streams(const reply_lines &reply);

// Memory and processor share, in whole percent, of a process's line of top; nothing when the line
// is another process's or has no two shares.
std::optional<std::pair<int, int>> parse_top_line(std::string_view line, long pid);
