// Which monitoring session runs, if any. Read and written on the main loop only; a thread that
// needs the session directory gets a copy when it is started.
#pragma once

#include <optional>
#include <string>

// The three texts of a session; all empty when there is none. Written by the setters below alone.
extern std::optional<std::string> secondary_storage_path;  // storage root, ending in "/"
extern std::optional<std::string> storage_id;              // none for the internal storage
extern std::optional<std::string> current_activity_folder; // the start stamp

// TRUE while a session runs: set by setup_session, cleared when it is deactivated.
extern bool monitory_active;

// The session's start time as text, at most 99 bytes. Set at activation and resume, cleared by the
// clean-up.
extern std::optional<std::string> monitor_start_time;

// Minutes that the session has been active, in step with its information file's "Duration".
extern unsigned long monitor_active_minutes_count;

// Period of scheduled crash reports in ticks, 0 when off, and the tick within it. Set at activation
// and resume.
extern unsigned long advanced_debug_mode_crash_recurrence;
extern unsigned long advanced_debug_mode_crash_recurrence_tick;

void _set_secondary_storage_path(std::optional<std::string> path);
void _set_storage_id(std::optional<std::string> id);
void _set_current_activity_folder(std::optional<std::string> folder);

// The package's folder for what must survive a restart, and the storage root of sessions on the
// internal storage.
inline constexpr const char *localdata_root = "/usr/local/packages/Vandrel/localdata/";
inline constexpr const char *current_monitoring_session_path =
    "/usr/local/packages/Vandrel/localdata/current_monitoring_session.txt";

// Sizes of the texts with their end marks: a storage root and a session directory.
inline constexpr std::size_t storage_root_size = 100;
inline constexpr std::size_t session_directory_size = 200;

// "/var/spool/storage/STORAGE/Vandrel_SERIAL/", or nothing when it would be too long or the storage
// is no plain file name that can stand in a command line.
std::optional<std::string> storage_root_of(const std::string &storage);

// The running session's directory: its root followed directly by its folder; nothing without both.
std::optional<std::string> session_directory();
