// Which monitoring session runs, if any. Read and written on the main loop only; a thread that
// needs the session directory gets a copy when it is started.
#pragma once

#include <atomic>
#include <optional>
#include <string>

// The three texts of a session; all empty when there is none. Written by the setters below alone.
extern std::optional<std::string> secondary_storage_path;  // storage root, ending in "/"
extern std::optional<std::string> storage_id;              // none for the internal storage
extern std::optional<std::string> current_activity_folder; // the start stamp

// TRUE while a session runs: set by setup_session, cleared when it is deactivated. Also read by the
// log follower.
extern std::atomic<bool> monitory_active;

// The session's start time as text, at most 99 bytes. Set at activation and resume, cleared by the
// clean-up.
extern std::optional<std::string> monitor_start_time;

// Minutes that the session has been active, in step with its information file's "Duration".
extern unsigned long monitor_active_minutes_count;

// The information file's "Collected Data Points"; none from a resume to the first collection.
extern std::optional<unsigned long> collected_data_points;

// Consecutive ticks in which the session's external storage could not be used; 0 while it can.
// Written by the main timer, cleared when a session starts.
extern unsigned long connection_lost_count;

// What came to pass since the start; each only grows.
struct occurrence_counts {
    unsigned long cores = 0;         // of programs, in a session
    unsigned long crash_reports = 0; // begun
    unsigned long kernel_dumps = 0;  // copied into a session
    unsigned long full_storages = 0; // that ended a session
};
extern occurrence_counts occurrences;

void _set_secondary_storage_path(std::optional<std::string> path);
void _set_storage_id(std::optional<std::string> id);
void _set_current_activity_folder(std::optional<std::string> folder);

// The package's folder for what must survive a restart, and the storage root of sessions on the
// internal storage.
inline constexpr const char *localdata_root = "/usr/local/packages/Vandrel/localdata/";
inline constexpr const char *current_monitoring_session_path =
    "/usr/local/packages/Vandrel/localdata/current_monitoring_session.txt";

// The longest session directory. All that is named below one, and every command that quotes one,
// keeps within the bound that it is formatted with as long as this holds.
inline constexpr std::size_t session_directory_max = 110;
inline constexpr std::size_t session_directory_size = 200; // of a text that holds one
inline constexpr std::size_t session_folder_length = 17;   // "20230531_08_27_40"

// Letters and digits only. The package's scripts check the same.
bool is_serial_number(const std::optional<std::string> &text);

// "/var/spool/storage/STORAGE/Vandrel_SERIAL/", or nothing without a serial number, when a session
// directory below it would be too long, or when the storage is no plain file name that can stand in
// a command line.
std::optional<std::string> storage_root_of(const std::string &storage);

// The running session's directory: its root followed directly by its folder; nothing without both.
std::optional<std::string> session_directory();
