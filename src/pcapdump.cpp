#include "pcapdump.h"

#include "app_state.h"
#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "pcap.h"
#include "process_list.h"
#include "session_globals.h"
#include "session_info.h"
#include "shell_word.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

bool pcapdump_is_active = false;

namespace {

using namespace std::chrono_literals;

constexpr std::size_t destination_size = 200;
constexpr std::size_t trace_path_size = 400;
constexpr std::size_t script_command_size = 1024;
constexpr std::size_t index_line_max = 255;
constexpr std::size_t download_name_max = 99;
constexpr const char *index_path =
    "/usr/local/packages/Vandrel/localdata/found_wireshark_sessions.txt";
constexpr http_status ok = http_status::ok;

// Set while a session is active.
std::optional<std::string> wireshark_session_destination;
std::string current_rec_id;
std::time_t wireshark_start_time = 0;

// Beside the traces lie sessions and their archives, and the reports of the device tests; a card's
// names know no upper and lower case.
bool is_name_of_something_else(const std::string &recording) {
    return is_start_stamp(recording.substr(0, session_folder_length).c_str()) ||
           g_ascii_strcasecmp(recording.c_str(), "Network_Device_Test") == 0;
}

// The folder for a recording, or nothing when its names can't be parts of a path and of a command,
// or the folder is there and no trace's.
std::optional<std::string> destination_of(const std::string &storage,
                                          const std::string &recording) {
    const auto root = storage_root_of(storage);
    // What the script takes as a name, too.
    if (!root || !is_shell_word(recording) || recording.find_first_of("/:+") != std::string::npos ||
        recording.starts_with('.') || recording.starts_with('-') ||
        root->size() + recording.size() >= destination_size ||
        is_name_of_something_else(recording)) {
        return std::nullopt;
    }
    const std::string destination = *root + recording;
    struct stat status {};
    const bool is_free = ::lstat(destination.c_str(), &status) != 0 && errno == ENOENT;
    errno = 0;
    return is_free || is_trace_dir(destination.c_str()) ? std::optional(destination) : std::nullopt;
}

std::string in_folder(const std::string &folder, const char *file) {
    return format_bounded(trace_path_size, "%s/%s", folder.c_str(), file);
}

// The script that starts the tool may still run in the background, so it is killed until it is
// gone.
void end_capture() {
    // A deadline, not a count of rounds: the commands may hang, too.
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < end) {
        command_read_lines("killall pcapdump 2>&1", index_line_max, [](const std::string &) {});
        if (!ps_grep_and_check_if_included("wireshark_session.sh", "start") &&
            !ps_grep_and_check_if_included("pcapdump", "-w")) {
            return;
        }
        std::this_thread::sleep_for(100ms);
    }
    log_warning("The capture tool has not ended.");
}

// Flushes to the storage and closes; false when something did not get there.
bool close_whole(unique_file &file) {
    const bool whole = std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0 &&
                       ::fsync(::fileno(file.get())) == 0;
    return std::fclose(file.release()) == 0 && whole;
}

void write_note(const std::string &folder, const char *kept_because) {
    const unique_file note = file_open_or_warn(in_folder(folder, "note.txt").c_str(), "w");
    if (note) {
        std::fputs("The repair process has finished. Details are presented in the repair log.\r\n",
                   note.get());
        if (kept_because != nullptr) {
            std::fprintf(note.get(), "The raw capture pcapdump.pcap was kept: %s.\r\n",
                         kept_because);
        }
    }
}

void log_duration(std::time_t start) {
    // A clock that was set back meanwhile makes no duration.
    const auto seconds =
        static_cast<unsigned long>(std::max<std::time_t>(std::time(nullptr) - start, 0));
    log_info("Wireshark trace + recording finished, duration: %lu hours, %lu minutes, %lu seconds",
             seconds / 3600, seconds / 60 % 60, seconds % 60);
}

// The index's lines by their tag:
// "S:2026-11-21 05:50:48", "P:/var/spool/storage/SD_DISK/Vandrel_02A5C41E90B7/rec1", "E:..."
void read_index(const std::function<void(char tag, const std::string &value)> &take) {
    const unique_file index = file_open(index_path, "r");
    std::string line;
    while (index && read_line(index.get(), index_line_max, line)) {
        str_terminate_at(line, '\n');
        take(line[0], line.size() > 2 ? line.substr(2) : "");
    }
    errno = 0;
}

std::string index_json() {
    std::string out;
    bool open = false;
    read_index([&](char tag, const std::string &value) {
        if (tag == 'S') {
            out += open ? ", \"stoptime\": \"Active\"}" : "";
            out += (out.empty() ? "" : ",") + ("{\"starttime\":\"" + value + "\"");
            open = true;
        } else if (tag == 'P' && open && is_shell_word(value) && value.size() < destination_size) {
            const bool active = value == wireshark_session_destination;
            const std::string size_file =
                in_folder(value, active ? "pcapdump.pcap" : "wireshark_archive.zip");
            out += is_file(size_file.c_str())
                       ? format_text(",\"size\":%lld", filesize(size_file.c_str()))
                       : ",\"size\":\"0\"";
            out += ", \"path\":\"" + value + "\"";
            out += is_file(in_folder(value, "zip_info.txt").c_str())
                       ? ", \"zipping_status\":\"Zipping\""
                       : ", \"zipping_status\":\"Not zipping\"";
        } else if (tag == 'E' && open) {
            out += ",\"stoptime\":\"" + value + "\"}";
            open = false;
        }
    });
    return out + (open ? ", \"stoptime\": \"Active\"}" : "");
}

std::string session_script(const std::string &folder, const std::string &recording,
                           const char *verb) {
    return format_bounded(
        script_command_size, "/usr/local/packages/Vandrel/wireshark_session.sh '%s' '%s' '%s' %s",
        folder.c_str(), serial_number.value_or("").c_str(), recording.c_str(), verb);
}

// A script that packs a trace, for as long as the trace is large. A script that hangs uses no
// processor time: it is ended after some minutes, long before its limit.
class trace_packing {
  public:
    trace_packing(std::string folder, const std::string &command)
        : folder_(std::move(folder)), script_(command.c_str(), -1) {}

    void wait_for_end() {
        while (!has_ended(1min)) {
        }
    }

    // Waits at most for `patience`. To be asked once a minute.
    bool has_ended(std::chrono::milliseconds patience) {
        if (script_.wait(patience)) {
            return true;
        }
        const auto ticks = script_.cpu_ticks();
        minutes_still_ = ticks == ticks_ ? minutes_still_ + 1 : 0;
        ticks_ = ticks;
        const bool hangs = minutes_still_ >= still_minutes_max;
        if (!hangs && loop_time_left() > 0ms) {
            return false;
        }
        (void)script_.end();
        for (const char *file : {"zip_info.txt", "wireshark_archive.new.zip"}) {
            file_remove(in_folder(folder_, file).c_str());
        }
        errno = 0;
        if (hangs) {
            log_warning("The archive of '%s' makes no progress: its packing is ended.",
                        folder_.c_str());
        }
        return true;
    }

  private:
    static constexpr int still_minutes_max = 3;

    std::string folder_;
    command_beside script_;
    std::optional<unsigned long long> ticks_;
    int minutes_still_ = 0;
};

// --- Traces that a restart or the loss of their storage has cut off

std::optional<std::string> known_mounts; // of the storages, as the kernel lists them
bool index_is_new = true;                // since it was looked through
std::vector<std::string> cut_off;
std::optional<trace_packing> mending; // beside the loop

// "38 27 179:1 / /var/spool/storage/SD_DISK rw,nosuid - ext4 /dev/mmcblk0p1 rw"; the first number
// is another one when the storage has come back. The storages themselves are not touched.
std::string storage_mounts() {
    std::string mounts;
    const unique_file file = file_open("/proc/self/mountinfo", "r");
    std::string line;
    while (file && read_line(file.get(), 1023, line)) {
        if (line.find(" /var/spool/storage/") != std::string::npos) {
            mounts += line.substr(0, line.find(" - "));
        }
    }
    errno = 0;
    return mounts;
}

bool has_file(const std::string &folder, const char *file) {
    return is_file(in_folder(folder, file).c_str());
}

// Traces without an end, or with an end but no archive.
void find_cut_off() {
    cut_off.clear();
    std::string folder;
    bool ended = true;
    const auto take_one = [&] {
        if (!folder.empty() && is_trace_dir(folder.c_str()) &&
            (!ended || has_file(folder, "zip_info.txt") ||
             !has_file(folder, "wireshark_archive.zip"))) {
            cut_off.push_back(folder);
        }
        folder.clear();
    };
    read_index([&](char tag, const std::string &value) {
        if (tag == 'S') {
            take_one();
            ended = false;
        } else if (tag == 'P') {
            folder = value;
        } else if (tag == 'E') {
            ended = true;
        }
    });
    take_one();
}

void mend(const std::string &folder) {
    log_info("The trace in '%s' was cut off: it is repaired and packed.", folder.c_str());
    const std::string recording = folder.substr(folder.rfind('/') + 1);
    (void)system_ret(session_script(folder, recording, "cut").c_str());
    if (has_file(folder, "pcapdump.pcap")) {
        terminate_pcapdump(folder);
    }
    mending.emplace(folder, session_script(folder, recording, "stop"));
}

} // namespace

void mend_cut_off_traces() {
    if (mending && !mending->has_ended(0ms)) {
        return;
    }
    mending.reset();
    if (wireshark_session_destination) {
        return; // the running trace uses the same tools
    }
    if (const std::string mounts = storage_mounts(); mounts != known_mounts) {
        if (std::exchange(known_mounts, mounts)) {
            index_is_new = true;
            collect_wireshark_sessions(true); // as the start has done
            return;
        }
    }
    const bool is_due = index_is_new || !cut_off.empty();
    if (!is_due || ps_grep_and_check_if_included("wireshark_session", ".sh")) {
        return; // a packing script may have outlived the daemon
    }
    if (index_is_new) {
        index_is_new = false;
        find_cut_off();
    }
    if (!cut_off.empty()) {
        const std::string folder = cut_off.back();
        cut_off.pop_back();
        mend(folder);
    }
}

void collect_wireshark_sessions(bool in_background) {
    const std::string serial = serial_number.value_or("");
    const std::string script = "/usr/local/packages/Vandrel/collect_wireshark_sessions.sh";
    (void)system_ret(
        (in_background
             ? format_bounded(destination_size, "%s %s &", script.c_str(), serial.c_str())
             : format_bounded(destination_size, "%s '%s'", script.c_str(), serial.c_str()))
            .c_str());
}

void kill_all_pcapdump() {
    command_read_lines("killall pcapdump", 200, [](const std::string &) {});
}

void end_left_over_capture() {
    if (ps_grep_and_check_if_included("pcapdump", "-w")) {
        kill_all_pcapdump();
    }
}

int terminate_pcapdump(const std::string &folder) {
    end_capture();
    const std::string raw_path = in_folder(folder, "pcapdump.pcap");
    unique_file raw = file_open_or_warn(raw_path.c_str(), "r");
    unique_file trace =
        raw ? file_open_or_warn(in_folder(folder, "trace.pcap").c_str(), "w") : nullptr;
    unique_file log =
        trace ? file_open_or_warn(in_folder(folder, "repair.log").c_str(), "w") : nullptr;
    if (!log) {
        return 0;
    }
    bool dropped_records = false;
    int result = fix_pcap(raw.get(), trace.get(), log.get(), &dropped_records);
    const bool trace_whole = close_whole(trace);
    const bool log_whole = close_whole(log);
    if (!trace_whole || !log_whole) {
        log_warning("Could not write the repaired capture in '%s': %s", folder.c_str(),
                    std::strerror(errno));
        errno = 0;
    }
    const char *kept_because = nullptr;
    if (result >= 0 && dropped_records) {
        kept_because = "the repair left out more than its unfinished end";
    }
    write_note(folder, kept_because);
    if (result >= 0 && trace_whole && log_whole && kept_because == nullptr) {
        file_remove(raw_path.c_str());
    }
    return 0;
}

void action_activate_wireshark_session(GDataOutputStream *stream, GHashTable *arguments) {
    const char *recording = http_argument(arguments, "recording_id");
    const char *storage = http_argument(arguments, "storage");
    const auto destination = recording != nullptr && storage != nullptr
                                 ? destination_of(storage, recording)
                                 : std::nullopt;
    if (!destination) {
        http_reply(stream, ok, content_type::json_utf8,
                   "{\"error\":\"Miss recording id or second storage name.\"}\r\n");
        return;
    }
    if (wireshark_session_destination) {
        http_reply(stream, ok, content_type::json_utf8,
                   "{\"error\":\"A session has already been activated.\"}\r\n");
        return;
    }
    wireshark_session_destination = destination;
    current_rec_id = recording;
    pcapdump_is_active = true;
    const std::string command =
        format_bounded(script_command_size,
                       "/usr/local/packages/Vandrel/wireshark_session.sh '%s' '%s' '%s' start &",
                       recording, storage, serial_number.value_or("").c_str());
    http_reply(stream, ok, content_type::json_utf8,
               "{\"success\":\"Wireshark session created.\"}\r\n");
    // The client is not kept waiting.
    g_output_stream_close(G_OUTPUT_STREAM(stream), nullptr, nullptr);
    (void)system_ret(command.c_str());
    log_info("Wireshark trace + video recording started");
    wireshark_start_time = std::time(nullptr);
}

void action_stop_wireshark_session(GDataOutputStream *stream, GHashTable *) {
    if (!wireshark_session_destination) {
        http_reply(stream, ok, content_type::text_utf8,
                   "Error: There is no active wireshark session to stop.\r\n");
        return;
    }
    http_reply(stream, ok, content_type::text_utf8, "Wireshark session deactivated.\r\n");
    // The reply ends when the trace can be had.
    g_output_stream_flush(G_OUTPUT_STREAM(stream), nullptr, nullptr);
    pcapdump_is_active = false;
    const long_reply_turns turns(long_reply::trace_repair);
    terminate_pcapdump(*wireshark_session_destination);
    trace_packing(*wireshark_session_destination,
                  session_script(*wireshark_session_destination, current_rec_id, "stop"))
        .wait_for_end();
    if (!is_directory(wireshark_session_destination->c_str())) {
        known_mounts = ""; // to be mended when its storage is back, however soon that was
    }
    log_duration(wireshark_start_time);
    wireshark_session_destination.reset();
}

void action_view_wireshark_sessions(GDataOutputStream *stream, GHashTable *) {
    if (!is_readable(index_path)) {
        errno = 0;
        http_reply(stream, ok, content_type::text_utf8,
                   "{\"error\":\"Failed to open wireshark session info file.\"}");
        return;
    }
    http_reply(stream, ok, content_type::text_utf8,
               format_text("{\"current_destination\": \"%s\",\"pcapdump_is_active\":%d,"
                           "\"sessions\":[",
                           wireshark_session_destination.value_or("None").c_str(),
                           pcapdump_is_active) +
                   index_json() + "]}");
}

void action_download_wireshark_session(GDataOutputStream *stream, GHashTable *arguments) {
    const char *folder = http_argument(arguments, "storage");
    if (!is_trace_dir(folder)) {
        errno = 0;
        http_reply(stream, ok, content_type::html_utf8,
                   "<!DOCTYPE html><body><pre>Invalid path given.</pre></body></html>\r\n");
        return;
    }
    std::string name = "wireshark_archive.zip";
    if (const char *package = std::strstr(folder, "Vandrel")) {
        if (const char *slash = std::strchr(package, '/')) {
            name = std::string(slash + 1).substr(0, download_name_max - 4) + ".zip";
            str_replace_char(name, '/', '_');
        }
    }
    http_write_header(stream, ok, content_type::binary,
                      "Content-Description: File Transfer\r\nContent-Disposition: attachment; "
                      "filename=\"" +
                          name + "\"\r\n");
    const long_reply_turns turns(long_reply::trace_archive);
    if (folder == wireshark_session_destination) {
        trace_packing(folder,
                      format_bounded(script_command_size,
                                     "/usr/local/packages/Vandrel/update_wireshark_session.sh '%s'",
                                     folder))
            .wait_for_end();
    }
    output_file(stream, in_folder(folder, "wireshark_archive.zip").c_str());
    log_info("Wireshark+Video archive \"%s\" downloaded", name.c_str());
}

void action_remove_wireshark_session(GDataOutputStream *stream, GHashTable *arguments) {
    const char *folder = http_argument(arguments, "storage");
    if (folder == nullptr || std::strlen(folder) >= destination_size || !is_shell_word(folder)) {
        http_reply(stream, ok, content_type::text_utf8, "Storage not provided.\r\n");
        return;
    }
    // Anything but a trace's folder stays; so does the one that a capture is running into.
    if (is_trace_dir(folder) && folder != wireshark_session_destination) {
        dir_remove_recursive(folder);
    }
    errno = 0;
    collect_wireshark_sessions(false);
    http_reply(stream, ok, content_type::text_utf8, "Session deleted.\r\n");
}

void action_wireshark_direct(GDataOutputStream *stream, GHashTable *arguments) {
    const char *argument = http_argument(arguments, "duration");
    if (argument == nullptr) {
        http_reply(stream, ok, content_type::text_utf8, "Not ok.. what duration?\r\n");
        return;
    }
    const auto duration = static_cast<unsigned>(decimal_prefix_unsigned(argument));
    // Hours, minutes modulo 60, but total seconds: kept, clients compare this text.
    log_info("Direct Network Trace Download, duration: %u hours, %u minutes, %u seconds",
             duration / 3600, duration / 60 % 60, duration);
    http_reply(stream, ok, content_type::text_utf8, "Ok\r\n");
}
