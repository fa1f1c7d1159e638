// A session's directory and its information file. Main loop only.
#pragma once

#include <functional>
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

// Rewrites the session's information file: `edit_line` changes each line (with its newline) in
// place, `text_at_end` is appended. Through a temporary of the given name, or in place on a full
// storage. False after a warning: the old file stays.
bool rewrite_session_info(const std::string &session_directory, const char *temporary_name,
                          std::size_t line_max,
                          const std::function<void(std::string &line)> &edit_line,
                          const std::function<std::string()> &text_at_end);

// "Collected Data Points": one more; collected_data_points follows it.
void update_number_of_collected_data_points(const std::string &session_directory);
// "Duration": one minute more; monitor_active_minutes_count follows it.
void update_session_duration(const std::string &session_directory);

std::optional<std::string> update_data_points(const std::string &old_value);
std::optional<std::string> update_duration(const std::string &old_value);
