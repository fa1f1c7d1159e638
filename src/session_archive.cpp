#include "session_archive.h"

#include "app_state.h"
#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "process_list.h"
#include "session_finder.h"
#include "session_globals.h"
#include "session_info.h"
#include "shell_word.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t archive_name_size = 128;
constexpr std::size_t zip_command_size = 1024;
constexpr long live_temporary_age_s = 600;
constexpr const char *being_zipped =
    "The monitoring session is in the process of being compressed into a zip archive. Please try "
    "downloading it again in a few minutes.";

// An archive that is being made, until its tool has ended.
struct packing {
    std::string session;
    pid_t group;
    unsigned long long ticks = 0; // of the processor
    int minutes_still = 0;
};
std::vector<packing> packings;
constexpr int still_minutes_max = 10;

// A hung tool would lock its session: it is ended when it makes no progress.
gboolean look_at_packings(gpointer) noexcept {
    std::erase_if(packings, [](packing &one) {
        const auto ticks = group_cpu_ticks(one.group);
        if (!ticks) {
            return true;
        }
        one.minutes_still = one.ticks == *ticks ? one.minutes_still + 1 : 0;
        one.ticks = *ticks;
        if (one.minutes_still < still_minutes_max) {
            return false;
        }
        ::kill(-one.group, SIGKILL);
        errno = 0;
        log_warning("The archive of '%s' makes no progress: its packing is ended.",
                    one.session.c_str());
        return true;
    });
    return packings.empty() ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

std::string base_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// "ziKhWrXF": zip's temporary beside the archive.
bool is_zip_temporary(const std::string &name) {
    return name.size() == 8 && name.starts_with("zi") &&
           std::all_of(name.begin(), name.end(), [](char ch) { return g_ascii_isalnum(ch) != 0; });
}

// A reply without a content type: kept, clients compare the header.
void reply_untyped(GDataOutputStream *stream, const char *status, const char *body) {
    http_write(stream, format_text("Status: %s\r\nPragma: no-cache\r\nCache-Control: no-cache\r\n"
                                   "Expires: -1\r\n\r\n%s",
                                   status, body));
}

void reply_zipping(GDataOutputStream *stream) {
    reply_untyped(stream, "503 Service Unavailable", being_zipped);
}

// The quoted path comes from a request: it is truncated.
void log_invalid_session(const char *path) {
    errno = 0;
    log_error("Cannot download session '%.*s': Invalid session path.",
              static_cast<int>(session_path_max), path);
}

// Part of a file name in a header line.
std::string name_part(std::string value) {
    std::replace_if(
        value.begin(), value.end(),
        [](char ch) { return static_cast<unsigned char>(ch) <= ' ' || ch == '"' || ch == '\\'; },
        '_');
    return value;
}

void send_archive(GDataOutputStream *stream, const std::string &session, int archive,
                  const std::string &model, const std::string &firmware) {
    struct stat status {};
    (void)::fstat(archive, &status);
    http_write(stream,
               format_text("Status: 200 OK\r\nPragma: no-cache\r\nCache-Control: no-cache\r\n"
                           "Expires: -1\r\nContent-Description: File Transfer\r\n"
                           "Content-Type: application/octet-stream\r\n"
                           "Content-Disposition: attachment; filename=\"%s-%s-%s.zip\"\r\n"
                           "Content-Length: %lld\r\n\r\n",
                           name_part(model).c_str(), name_part(firmware).c_str(),
                           base_name(session).c_str(), static_cast<long long>(status.st_size)));
    const long_reply_turns turns(long_reply::session_archive);
    output_descriptor(stream, archive, status.st_size);
}

// Compared as the folder that it is: "//" or "/./" in the path lead to the running session too.
bool is_current_monitor_dir(const std::string &path) {
    const auto current = session_directory();
    struct stat asked {};
    struct stat running {};
    return current &&
           (path == *current ||
            (::stat(path.c_str(), &asked) == 0 && ::stat(current->c_str(), &running) == 0 &&
             asked.st_dev == running.st_dev && asked.st_ino == running.st_ino));
}

int remove_monitoring_session(const std::string &path) {
    const int removed = dir_remove_recursive(path.c_str());
    const std::string archive = session_archive_path(path);
    if (is_file(archive.c_str())) {
        file_remove(archive.c_str());
    }
    return removed;
}

} // namespace

std::string session_archive_path(const std::string &session_directory) {
    return session_directory + ".zip";
}

void sweep_zip_leftovers(const std::string &root) {
    std::vector<std::string> left;
    std::error_code error;
    for (fs::directory_iterator entry(root, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (is_zip_temporary(entry->path().filename()) && !entry->is_symlink(ignored) &&
            entry->is_regular_file(ignored)) {
            left.push_back(entry->path());
        }
    }
    // After the listing: a zip that starts later can't own one of the files listed.
    if (left.empty() || ps_grep_and_check_if_included("zip", "--recurse-paths")) {
        return;
    }
    for (const std::string &path : left) {
        log_info("Removing '%s', which an interrupted zip has left.", path.c_str());
        file_remove(path.c_str());
    }
}

bool is_zipping_session(const std::string &session_directory) {
    if (session_directory.find('/') == std::string::npos) {
        log_warning("Could not get basename of path: %s", session_directory.c_str());
        return false;
    }
    return ps_grep_and_check_if_included("zip", base_name(session_directory));
}

void zip_session_directory(const char *path) {
    errno = 0;
    if (path == nullptr) {
        log_error("Path to zip is NULL");
        return;
    }
    if (!is_directory(path)) {
        log_error("Path to zip is not a directory: %s", path);
        return;
    }
    if (path[0] != '/') {
        log_error("Path to zip must be absolute, but got: %s", path);
        return;
    }
    const std::string name = base_name(path);
    if (!is_shell_word(name)) {
        log_error("Invalid path to zip: %s", path);
        return;
    }
    const std::string archive = format_bounded(archive_name_size, "%s.zip", name.c_str());
    const std::string command =
        format_bounded(zip_command_size, "zip --recurse-paths %s %s --exclude .tmp\\* &",
                       archive.c_str(), name.c_str());
    const std::string parent = std::string(path).substr(0, std::strlen(path) - name.size());
    // The tool follows links, and its exclude pattern does not reach below the folder. What a
    // running session is just writing stays.
    sweep_tree(path, is_current_monitor_dir(path) ? live_temporary_age_s : 0);
    if (const std::string target = parent + archive; !can_append_or_warn(target.c_str())) {
        file_remove(target.c_str());
    }
    sweep_zip_leftovers(parent);
    const unique_fd folder = folder_descriptor(parent.c_str());
    if (!folder || ::fchdir(folder.get()) != 0) {
        log_error("Could not change directory to: %s", parent.c_str());
        return;
    }
    const mode_t before = ::umask(077); // what is in it is for root alone
    const pid_t group = start_in_background(command.c_str());
    ::umask(before);
    if (group > 0) {
        packings.push_back({path, group});
        if (packings.size() == 1) {
            loop_add_seconds(60, look_at_packings, nullptr);
        }
    }
}

int zip_session(const std::string &session_directory) {
    if (is_zipping_session(session_directory)) {
        return 0;
    }
    zip_session_directory(session_directory.c_str());
    return 1;
}

void action_zip_monitor_data(GDataOutputStream *stream, GHashTable *arguments) {
    const char *session = http_argument(arguments, "storage");
    if (session == nullptr) {
        http_reply(stream, http_status::bad_request, content_type::json,
                   "{\"error\":\"No storage given.\"}\r\n");
    } else if (!is_monitory_dir(session)) {
        log_invalid_session(session);
        http_reply(stream, http_status::bad_request, content_type::json,
                   "{\"error\":\"Invalid session path.\"}\r\n");
    } else if (is_zipping_session(session)) {
        http_reply(stream, http_status::service_unavailable, content_type::json,
                   format_text("{\"error\":\"%s\"}\r\n", being_zipped));
    } else if (is_file(session_archive_path(session).c_str())) {
        http_reply(stream, http_status::ok, content_type::json,
                   "{\"message\":\"The monitoring session has been zipped.\"}\r\n");
    } else {
        zip_session(session);
        http_reply(stream, http_status::accepted, content_type::json,
                   format_text("{\"message\":\"%s\"}\r\n", being_zipped));
    }
}

void action_get_monitor_data(GDataOutputStream *stream, GHashTable *arguments) {
    const char *session = http_argument(arguments, "storage");
    if (session == nullptr) {
        http_reply(stream, http_status::bad_request, content_type::text,
                   "Error: No storage or status given.");
        return;
    }
    if (!is_monitory_dir(session)) {
        log_invalid_session(session);
        reply_untyped(stream, "400 Bad Request", "Invalid session path.");
        return;
    }
    const auto model = parameter_get("root.Brand.ProdShortName");
    const auto firmware = parameter_get("root.Properties.Firmware.Version");
    if (!model || !firmware) {
        errno = 0;
        log_critical("Could not read product model and/or firmware version from parameters.");
        http_reply(stream, http_status::internal_server_error, content_type::text,
                   "Error: Could not product model and/or firmware version from parameters.");
        return;
    }
    const std::string archive = session_archive_path(session);
    // A link in its place is no archive; a new one replaces it.
    const unique_fd file = file_descriptor(archive.c_str(), O_RDONLY);
    if (is_zipping_session(session)) {
        reply_zipping(stream);
    } else if (file) {
        send_archive(stream, session, file.get(), *model, *firmware);
        const char *remove = http_argument(arguments, "remove");
        if (remove != nullptr && std::strcmp(remove, "yes") == 0) {
            file_remove(archive.c_str());
        }
    } else {
        zip_session(session);
        reply_zipping(stream);
    }
}

void action_remove(GDataOutputStream *stream, GHashTable *arguments) {
    const char *path = http_argument(arguments, "path");
    if (path == nullptr) {
        http_reply(stream, http_status::bad_request, content_type::text,
                   "Error: No storage given.\r\n");
    } else if (!is_monitory_dir(path)) {
        http_reply(stream, http_status::bad_request, content_type::text,
                   "Error: Not a valid monitoring session.\r\n");
    } else if (is_current_monitor_dir(path)) {
        http_reply(stream, http_status::bad_request, content_type::text,
                   "Error: Can't delete the current active monitoring session. Please deactivate "
                   "the current monitoring session before attempting to delete it.\r\n");
    } else if (is_zipping_session(path)) {
        http_reply(stream, http_status::service_unavailable, content_type::text,
                   "Error: Can't delete session right now, please try again in a few minutes.\r\n");
    } else {
        remove_monitoring_session(path);
        collect_monitoring_sessions(collect_only_from_this_camera ? serial_number : std::nullopt);
        http_reply(stream, http_status::ok, content_type::text, "Files deleted.\r\n");
    }
}
