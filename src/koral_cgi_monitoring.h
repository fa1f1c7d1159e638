// Follows the web server's log while a session runs: keeps its lines in the session and counts and
// times the calls of the device's HTTP API.
//
// Lines arrive on the follower's own thread; one mutex guards all that they touch, and each
// function here takes it. Main loop, but for the follower's two callbacks.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>

// One call by one user. Made by the first line of it, kept until the follower is started again.
struct koral_cgi_monitor_item_t {
    std::string url;                    // "USER@/tarvo-cgi/...", without what changes each time
    std::uint64_t called_count = 0;     // since it is tracked
    std::uint32_t store_count = 0;      // since the last row of its CSV file
    std::uint32_t process_time_max = 0; // ms
    std::uint32_t process_time_min = 0; // ms
    std::uint32_t process_time_avg = 0; // us: of moving_average
    std::array<std::uint32_t, 8>
        moving_average{}; // ms, newest first; the last stays the first call's
    std::time_t time_first = 0;
    std::time_t time_last = 0;
    std::chrono::steady_clock::time_point steady_first; // the same
    std::chrono::steady_clock::time_point steady_last;
};

// So many different calls are tracked.
inline constexpr std::size_t koral_calls_max = 512;

// The session folder that the files go to; without one only the table is kept.
void set_http_edge_storage(const std::string &session_directory);

// Starts the follower with an empty table and the default filters, which are written to the
// session. Failures are logged.
void koral_cgi_monitor_setup();

// Ends the follower and forgets the folder. The table stays until the next start.
void koral_cgi_monitor_release();

// Makes up for filters that could not be written or read when the follower was started, as the
// session's storage was not there. Costs nothing when they could.
void koral_cgi_monitor_mend();

// What koral_read_user_defined_filters returns.
inline constexpr int koral_filters_read = 0;
inline constexpr int koral_no_storage = 1;
inline constexpr int koral_filters_unreadable = 2;
inline constexpr int koral_no_filters = 4; // the ones before stay

// Takes the filters of the session's filters.txt: lines of log text that go to files of their own.
int koral_read_user_defined_filters();

// The follower's callbacks. Handles one line of the log, without its line end: counts it and keeps
// what goes to the session's files.
void parse_koral_line(const char *line);
// Writes what was kept of the lines that came together, each file at once.
void koral_write_lines();

// Handles, while the log is followed, the lines that were missed at its latest rotation, and starts
// a follower anew that somebody has ended.
void koral_take_late_lines();

// How many calls of the API were seen since the daemon's start, in sessions. Any thread.
std::uint64_t koral_calls_seen();

// Appends a row for each tracked call to its user's CSV file.
void koral_cgi_store();

// The report on all calls, with the device's model and firmware.
std::string koral_output_state_of_the_table();

// Replaces the session's koral_status.txt by the report, if any call is tracked.
void koral_output_to_file();
