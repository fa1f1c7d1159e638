// Watches the config.json of every installed package and copies each version of it into the
// session. Main loop only.
#pragma once

#include <optional>
#include <string>

inline constexpr int config_watchers_max = 100;

// Copies the package's configuration into the session as the "-initial" one and watches it from
// then on in the slot `index` (below config_watchers_max, logged otherwise), replacing the slot's
// watch. A package without a readable configuration is remembered for the catch-up.
void configlogs_inotify_gio_setup(const std::string &session_directory, const std::string &package,
                                  int index);

// For every minute of a session: watches all installed packages, once; from then on copies what
// could not be copied while the storage was away, and watches packages that have a configuration by
// now. Cheap when nothing is pending.
void configlogs_inotify_gio_keep_watching(const std::string &session_directory);

// Ends all watches and forgets the packages.
void configlogs_inotify_gio_release();

// "/usr/local/packages/NAME/localdata/config.json" -> "NAME"; nothing without one.
std::optional<std::string> get_package_name_from_path(const std::string &path);

// "261121_04_05_06.json", "261121_04_05_06-initial.json" for a first copy; nothing when the clock
// can't be read.
std::optional<std::string> output_filename_with_date_and_time(bool initial);
