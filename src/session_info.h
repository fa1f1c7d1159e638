// A session's directory, its information file, and the session that runs, as it is kept for a
// restart. Main loop only.
#pragma once

#include <optional>
#include <string>

// Texts longer than this can't be a session's path anywhere in the daemon.
inline constexpr std::size_t session_path_max = 199;

// Whether the text has the form of a session's folder, such as 20230531_08_27_40. The bounds are
// loose: month 0 and hour 24 pass.
bool is_start_stamp(const char *folder);

// Whether the path names an existing session directory: below the internal or a platform storage,
// without "/..", its last part a start stamp. Every path of a request is checked with this first.
bool is_monitory_dir(const char *path);

// The same for the folder of a network trace, which holds the file "wireshark_signature.txt"
// and is no session's.
bool is_trace_dir(const char *path);

// Gives a field's new value from what stood behind its "NAME: " (line end included), or nothing to
// leave the line as it is.
using session_info_update = std::optional<std::string> (*)(const std::string &old_value);

// Rewrites one field of the session's Session_Information.txt. When no line was replaced, the field
// is added at the end with the default as it stands. A file that can't be read or replaced whole
// stays as it is, with a warning.
void read_and_update_session_info(const std::string &session_directory, const std::string &field,
                                  session_info_update update, const std::string &default_value);

// "Collected Data Points": one more; collected_data_points follows it.
void update_number_of_collected_data_points(const std::string &session_directory);
// "Duration": one minute more; monitor_active_minutes_count follows it.
void update_session_duration(const std::string &session_directory);

std::optional<std::string> update_data_points(const std::string &old_value);
std::optional<std::string> update_duration(const std::string &old_value);

// What the information file says of crash reports.
struct crash_report_plan {
    std::optional<unsigned long> interval;   // minutes between scheduled ones
    std::optional<std::string> log_messages; // the block of those that make one
};

// Writes the information file of the session that is being started. A failure is logged.
void write_session_information(const std::string &session_directory, const crash_report_plan &plan);

// Records the stop: the end line of the signature file, the stop time. False when the time could
// not be recorded.
void complete_signature(const std::string &session_directory);
bool record_session_stop(const std::string &session_directory);
// Appends the session's size, if it can be measured.
void append_session_size(const std::string &session_directory);

// The contents of current_monitoring_session.txt, not validated.
struct stored_session {
    std::optional<std::string> root;
    std::optional<std::string> id;
    std::optional<std::string> folder;
    std::optional<std::string> start_time;
    std::optional<unsigned long> crash_recurrence;
    std::string image_interval;
};

// Nothing when no session is stored. Lines that can't be one are logged and skipped.
std::optional<stored_session> read_stored_session();

// Whether root and folder form the path of a session: they become parts of command lines.
bool names_a_session_directory(const stored_session &session);
