#include "data_export.h"

#include "fileutil.h"
#include "log.h"
#include "session_info.h"
#include "storage_investigator.h"
#include "strutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr std::size_t export_path_size = 300;
constexpr std::size_t record_line_max = 549;
constexpr std::size_t piece_size = 65536;
constexpr const char *monitoring = "system_monitoring";

// --- The CSV files and what they are called in a request

// Both ways: a request finds the first row of its type, and of its name where the row has one; a
// file finds the first row that it fits.
struct export_type {
    const char *type;
    const char *file; // below system_monitoring; %n is the name and %p the pid
    const char *name = nullptr;
    bool needs_pid = false;
    bool needs_at = false; // the name stands behind an "@" in the path
    bool in_type = false;  // it stands behind the type, as in "meminfo/total.csv"
};

constexpr export_type export_types[] = {
    {"load", "monitoring_load/load.csv"},
    {"self", "monitoring_self/Vandrel_summary.csv"},
    {"pagefault", "monitoring_kernel/pagefaults.csv"},
    {"buddyinfo", "monitoring_kernel/buddyinfo.csv"},
    {"stream", "monitoring_streams/stream.csv"},
    {"environment_power", "monitoring_environment/power.csv", "reqrev"},
    {"environment_power", "monitoring_environment/%n/devicepower.csv"},
    {"environment", "monitoring_environment/%n"},
    {"network", "monitoring_network/network.csv", ""},
    {"network", "monitoring_network/%n"},
    {"slabinfo", "monitoring_slabinfo/%n.csv"},
    {"vmstat", "monitoring_vmstatus/%n/%p/vmstatus.csv", nullptr, true},
    {"topstat", "monitoring_topstatus/%n/%p/topstatus.csv", nullptr, true},
    {"velas", "monitoring_vela/%n", nullptr, false, true},
    {"koral", "monitoring_koral/others/%n", nullptr, false, true},
    {"meminfo/", "monitoring_meminfo/%n", nullptr, false, false, true},
};

// The arguments that select a CSV file.
struct selection {
    std::string type;
    std::string name;
    std::string pid;
};

const export_type *find_type(std::string_view type, std::string_view name) {
    const auto found = std::find_if(
        std::begin(export_types), std::end(export_types), [&](const export_type &entry) {
            return (entry.in_type ? type.find(entry.type) != std::string_view::npos
                                  : type == entry.type) &&
                   (entry.name == nullptr || name == entry.name);
        });
    return found == std::end(export_types) ? nullptr : found;
}

std::string file_of(const export_type &type, std::string_view name, std::string_view pid) {
    std::string file = type.file;
    for (const auto &[mark, text] : {std::pair("%p", pid), std::pair("%n", name)}) {
        if (const auto at = file.find(mark); at != std::string::npos) {
            file.replace(at, 2, text);
        }
    }
    return file;
}

// The file that the arguments select; nothing for an unknown type.
std::optional<std::string> selected_file(const std::string &path, std::string_view type,
                                         const char *name, const char *pid) {
    const export_type *entry = find_type(type, name == nullptr ? "" : name);
    if (entry == nullptr) {
        return std::nullopt;
    }
    if (entry->needs_pid && (name == nullptr || pid == nullptr)) {
        errno = 0;
        log_error("process_name and/or pid is null");
        return std::nullopt;
    }
    const auto at = path.find('@');
    if (entry->needs_at && at == std::string::npos) {
        return path;
    }
    const std::string from = entry->needs_at ? path.substr(0, at) : path;
    const std::string of = entry->needs_at   ? path.substr(at + 1)
                           : entry->in_type  ? std::string(type.substr(type.find('/') + 1))
                           : name == nullptr ? ""
                                             : name;
    return from + "/" + monitoring + "/" + file_of(*entry, of, pid == nullptr ? "" : pid);
}

// --- What a request may ask for

// A name that stays in its folder.
bool is_plain_name(std::string_view name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
           std::none_of(name.begin(), name.end(), [](char ch) {
               return ch == '/' || static_cast<unsigned char>(ch) < ' ' || ch == 0x7f;
           });
}

std::vector<std::string> split_path(std::string_view path) {
    std::vector<std::string> parts;
    while (true) {
        const auto slash = path.find('/');
        parts.emplace_back(path.substr(0, slash));
        if (slash == std::string_view::npos) {
            return parts;
        }
        path.remove_prefix(slash + 1);
    }
}

// Opens a regular file below a session without leaving it: no part may be a link or "..".
unique_fd open_inside(const std::string &session, std::string_view relative_path) {
    const std::vector<std::string> parts = split_path(relative_path);
    return std::all_of(parts.begin(), parts.end(), is_plain_name)
               ? file_descriptor((session + "/" + std::string(relative_path)).c_str(), O_RDONLY)
               : unique_fd();
}

std::string json_text(std::string_view text) {
    std::string json = "\"";
    for (const char ch : text) {
        if (ch == '"' || ch == '\\') {
            json.append(1, '\\').append(1, ch);
        } else if (static_cast<unsigned char>(ch) < ' ') {
            json += format_text("\\u%04x", static_cast<unsigned char>(ch));
        } else {
            json += ch;
        }
    }
    return json + "\"";
}

void refuse(GDataOutputStream *stream, const char *reason) {
    http_reply(stream, http_status::bad_request, content_type::json,
               format_text("{\"error\":%s}\r\n", json_text(reason).c_str()));
}

// --- The listing of a session

constexpr int depth_max = 8;
constexpr std::size_t entries_max = 20'000;
constexpr std::size_t header_max = 2000;

struct listing {
    std::string csv;
    std::string files;
    std::size_t entries = 0;
};

std::string first_line(int folder, const char *name) {
    const unique_fd file(::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    std::array<char, header_max> text;
    const ssize_t size = file ? ::read(file.get(), text.data(), text.size()) : 0;
    const std::string_view start(text.data(), size < 0 ? 0 : static_cast<std::size_t>(size));
    return std::string(start.substr(0, start.find_first_of("\r\n")));
}

// Whether a part of a path fits a part of a row's file, such as "%n.csv".
bool fits(std::string_view part, std::string_view pattern, selection &found) {
    const auto at = pattern.find('%');
    if (at == std::string_view::npos) {
        return part == pattern;
    }
    const std::string_view end = pattern.substr(at + 2);
    if (part.size() <= at + end.size() || !part.ends_with(end)) {
        return false;
    }
    (pattern[at + 1] == 'p' ? found.pid : found.name) =
        part.substr(at, part.size() - at - end.size());
    return true;
}

// For velas and koral the name is what stands behind the "@". All empty for a file of no type.
selection selection_of(const std::string &path) {
    std::vector<std::string> parts = split_path(path);
    if (parts.front() != monitoring) {
        return {};
    }
    parts.erase(parts.begin());
    for (const export_type &type : export_types) {
        const std::vector<std::string> pattern = split_path(type.file);
        selection found{type.type, type.name == nullptr ? "" : type.name, ""};
        if (std::equal(parts.begin(), parts.end(), pattern.begin(), pattern.end(),
                       [&](const auto &part, const auto &of) { return fits(part, of, found); })) {
            return type.in_type ? selection{type.type + found.name, "", ""} : found;
        }
    }
    return {};
}

std::string json_or_null(const std::string &text) {
    return text.empty() ? "null" : json_text(text);
}

void list_folder(int parent, const char *name, const std::string &path, int depth, listing &list) {
    unique_fd descriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    unique_folder folder(descriptor ? ::fdopendir(descriptor.get()) : nullptr);
    if (!folder) {
        return;
    }
    const int folder_descriptor = descriptor.release(); // closed with the folder
    while (const dirent *entry = ::readdir(folder.get())) {
        const char *entry_name = entry->d_name;
        struct stat status {};
        if (std::strcmp(entry_name, ".") == 0 || std::strcmp(entry_name, "..") == 0 ||
            ::fstatat(folder_descriptor, entry_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            ++list.entries > entries_max) {
            continue;
        }
        const std::string entry_path = path + entry_name;
        if (S_ISDIR(status.st_mode) && depth < depth_max) {
            list_folder(folder_descriptor, entry_name, entry_path + "/", depth + 1, list);
        } else if (S_ISREG(status.st_mode) && std::string_view(entry_name).ends_with(".csv")) {
            const selection select = selection_of(entry_path);
            list.csv += format_text(
                "%s{\"path\":%s,\"type\":%s,\"name\":%s,\"pid\":%s,\"header\":%s,\"size\":%lld}",
                list.csv.empty() ? "" : ",", json_text(entry_path).c_str(),
                json_or_null(select.type).c_str(), json_or_null(select.name).c_str(),
                json_or_null(select.pid).c_str(),
                json_text(first_line(folder_descriptor, entry_name)).c_str(),
                static_cast<long long>(status.st_size));
        } else if (S_ISREG(status.st_mode)) {
            list.files += format_text("%s{\"path\":%s,\"size\":%lld,\"time\":%lld}",
                                      list.files.empty() ? "" : ",", json_text(entry_path).c_str(),
                                      static_cast<long long>(status.st_size),
                                      static_cast<long long>(status.st_mtime));
        }
    }
}

void reply_listing(GDataOutputStream *stream, const std::string &session) {
    listing list;
    if (const unique_fd folder = folder_descriptor(session.c_str())) {
        list_folder(folder.get(), ".", "", 0, list);
    }
    errno = 0;
    http_reply(stream, http_status::ok, content_type::json_utf8,
               "{\"csv\":[" + list.csv + "],\"files\":[" + list.files +
                   "],\"complete\":" + (list.entries > entries_max ? "false" : "true") + "}");
}

void reply_storages(GDataOutputStream *stream) {
    std::string storages;
    for (const storage_state &state : storage_states()) {
        storages += format_text(
            "%s{\"name\":%s,\"status\":%s,\"usable\":%s,\"size_kb\":%lld,\"percent_used\":%d}",
            storages.empty() ? "" : ",", json_text(state.name).c_str(),
            json_text(state.status).c_str(), state.usable ? "true" : "false", state.size_kb,
            state.percent_used);
    }
    errno = 0;
    http_reply(stream, http_status::ok, content_type::json_utf8,
               "{\"storages\":[" + storages + "]}");
}

// --- A part of one file

void reply_file(GDataOutputStream *stream, const std::string &session, const char *relative_path,
                const char *offset_text, const char *length_text) {
    const auto offset = plain_decimal(offset_text == nullptr ? "0" : offset_text);
    const auto length = plain_decimal(length_text == nullptr ? "9223372036854775807" : length_text);
    constexpr auto largest = static_cast<unsigned long long>(INT64_MAX);
    if (!offset || !length || *offset > largest || *length > largest) {
        refuse(stream, "offset and length must be plain decimal numbers");
        return;
    }
    const unique_fd file = open_inside(session, relative_path);
    if (!file) {
        refuse(stream, "There is no such file in the session.");
        return;
    }
    const long_reply_turns turns(long_reply::session_data);
    http_write_header(stream, http_status::ok, content_type::text_utf8);
    std::array<char, piece_size> piece;
    auto position = static_cast<off_t>(*offset);
    auto left = *length;
    ssize_t size = 0;
    while (
        left > 0 &&
        (size = ::pread(file.get(), piece.data(),
                        static_cast<std::size_t>(std::min<unsigned long long>(left, piece.size())),
                        position)) > 0 &&
        http_write(stream, {piece.data(), static_cast<std::size_t>(size)})) {
        position += size;
        left -= static_cast<unsigned long long>(size);
    }
}

// Of a trace only the texts about its repair may be read.
bool is_trace_text(const std::string &path, const char *file) {
    const std::string_view name = file == nullptr ? "" : file;
    return (name == "repair.log" || name == "note.txt") && is_trace_dir(path.c_str());
}

// Why the arguments select no CSV file, or nullptr.
const char *reason_to_refuse(const std::string &path, const std::string &session, const char *type,
                             const char *name, const char *pid) {
    const bool has_at = session.size() != path.size();
    if (has_at && !is_plain_name(std::string_view(path).substr(session.size() + 1))) {
        return "The file behind @ must be a plain file name.";
    }
    const std::string_view key = type;
    const export_type *entry = find_type(key, name == nullptr ? "" : name);
    if (entry == nullptr || (entry->in_type && !key.starts_with(entry->type))) {
        return "There is no such type.";
    }
    if (entry->in_type) {
        return has_at || !is_plain_name(key.substr(std::strlen(entry->type)))
                   ? "The type must be meminfo/ and a plain file name."
                   : nullptr;
    }
    if (entry->needs_at != has_at) {
        return entry->needs_at ? "This type needs a file behind @ in storage."
                               : "This type takes no file behind @ in storage.";
    }
    const bool needs_name = !entry->needs_at && std::strstr(entry->file, "%n") != nullptr;
    if (name == nullptr ? needs_name : !is_plain_name(name)) {
        return "name must be a plain file name.";
    }
    if (pid == nullptr ? entry->needs_pid : !is_plain_name(pid)) {
        return "pid must be a plain file name.";
    }
    return nullptr;
}

} // namespace

void print_file_as_json_data(GDataOutputStream *stream, const char *path) {
    const unique_file file = file_open(path, "r");
    errno = 0;
    std::string line;
    if (!file || !read_line(file.get(), record_line_max, line)) {
        return;
    }
    // Batched: one write per record would dominate the cost.
    std::string records;
    bool first = true;
    while (read_line(file.get(), record_line_max, line)) {
        str_terminate_at(line, '\r');
        str_terminate_at(line, '\n');
        records.append(first ? "{\"data\": \"" : ",{\"data\": \"").append(line).append("\"}");
        first = false;
        if (records.size() > piece_size) {
            if (!http_write(stream, records)) {
                return;
            }
            records.clear();
        }
    }
    http_write(stream, records);
}

void output_data_json_no_retention(GDataOutputStream *stream, const char *path, const char *type,
                                   const char *process_name, const char *pid) {
    http_write(stream, "Status: 200 OK\r\nPragma: public\r\nContent-Type: application/json; "
                       "charset=utf-8\r\n\r\n{ \"Records\" : [");
    if (const auto file = selected_file(path, type, process_name, pid)) {
        print_file_as_json_data(stream,
                                format_bounded(export_path_size, "%s", file->c_str()).c_str());
    }
    http_write(stream, "]}");
}

void action_view_monitor_data(GDataOutputStream *stream, GHashTable *arguments) {
    const char *storage = http_argument(arguments, "storage");
    const std::string path = storage == nullptr ? "" : storage;
    const std::string session = path.substr(0, path.find('@'));
    const char *type = http_argument(arguments, "type");
    const char *file = http_argument(arguments, "file");
    const char *name = http_argument(arguments, "name");
    const char *pid = http_argument(arguments, "pid");
    if (storage == nullptr && type != nullptr && std::strcmp(type, "storages") == 0) {
        reply_storages(stream);
    } else if (is_trace_text(path, file)) {
        reply_file(stream, path, file, http_argument(arguments, "offset"),
                   http_argument(arguments, "length"));
    } else if (!is_monitory_dir(session.c_str())) {
        refuse(stream, "storage must be the path of a session.");
    } else if (type != nullptr) {
        const char *reason = reason_to_refuse(path, session, type, name, pid);
        const auto selected =
            reason == nullptr ? selected_file(path, type, name, pid) : std::nullopt;
        if (reason == nullptr && selected && selected->size() >= export_path_size) {
            reason = "The file's path is too long.";
        }
        if (reason != nullptr) {
            refuse(stream, reason);
        } else {
            output_data_json_no_retention(stream, path.c_str(), type, name, pid);
        }
    } else if (session.size() != path.size()) {
        refuse(stream, "A file behind @ in storage needs a type.");
    } else if (file != nullptr) {
        reply_file(stream, session, file, http_argument(arguments, "offset"),
                   http_argument(arguments, "length"));
    } else {
        reply_listing(stream, session);
    }
}
