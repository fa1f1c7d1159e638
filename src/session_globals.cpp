#include "session_globals.h"

#include "app_state.h"
#include "shell_word.h"
#include "strutil.h"

#include <algorithm>
#include <cctype>
#include <utility>

std::optional<std::string> secondary_storage_path;
std::optional<std::string> storage_id;
std::optional<std::string> current_activity_folder;
std::atomic<bool> monitory_active = false;
std::optional<std::string> monitor_start_time;
unsigned long monitor_active_minutes_count = 0;
std::optional<unsigned long> collected_data_points;
unsigned long connection_lost_count = 0;

occurrence_counts occurrences;

void _set_secondary_storage_path(std::optional<std::string> path) {
    secondary_storage_path = std::move(path);
}

void _set_storage_id(std::optional<std::string> id) {
    storage_id = std::move(id);
}

void _set_current_activity_folder(std::optional<std::string> folder) {
    current_activity_folder = std::move(folder);
}

bool is_serial_number(const std::optional<std::string> &text) {
    return text && !text->empty() && std::all_of(text->begin(), text->end(), [](unsigned char ch) {
               return std::isalnum(ch) != 0;
           });
}

std::optional<std::string> storage_root_of(const std::string &storage) {
    if (!is_serial_number(serial_number) || !is_shell_word(storage) ||
        storage.find('/') != std::string::npos || storage.starts_with('.') ||
        storage.starts_with('-')) {
        return std::nullopt;
    }
    std::string root = "/var/spool/storage/" + storage + "/Vandrel_" + *serial_number + "/";
    if (root.size() + session_folder_length > session_directory_max) {
        return std::nullopt;
    }
    return root;
}

std::optional<std::string> session_directory() {
    if (!secondary_storage_path || !current_activity_folder) {
        return std::nullopt;
    }
    return format_bounded(session_directory_size, "%s%s", secondary_storage_path->c_str(),
                          current_activity_folder->c_str());
}
