// Whether a storage is there and healthy, how full it is, and what the running session occupies.
// Main loop only; each of these runs a command and waits for it.
#pragma once

#include <chrono>
#include <functional>
#include <glib.h>
#include <optional>
#include <string>
#include <vector>

// Asks the platform's storage service (at most 6 seconds). The loss of a storage is logged once, if
// `log_also`, until a test of it succeeds again.
bool determine_if_this_storage_is_ok(const char *name_to_go_by, bool log_also);

// The same, but nothing when the tool hung, which says nothing about the storage.
std::optional<bool> ask_whether_storage_is_ok(const char *name_to_go_by, bool log_also);

// Finds one storage in the storage service's printed reply, line after line. A storage is healthy
// when its status line says "OK" and of its properties, told by their position behind the line with
// its name, number 6 is true and 9 and 10 are false.
class storage_reply_reader {
  public:
    explicit storage_reply_reader(const std::string &name);
    void take_line(const std::string &line);
    [[nodiscard]] bool is_healthy() const;

  private:
    std::string quoted_name_;
    bool in_block_ = false;
    unsigned position_ = 0;
    bool status_ok_ = false;
    bool properties_[17] = {};
};

// Whether a file system is mounted there. An ejected storage leaves its empty mount point behind.
bool is_mount_point(const std::string &path);

struct storage_state {
    std::string name;   // as the storage service has it, or "localdata"
    std::string status; // the service's word: "OK", "Disconnected"
    bool usable;
    long long size_kb; // of its partition; 0 while it is not mounted
    int percent_used;  // -1 while it is not mounted
};

// All storages of the camera, and the internal one behind them. Asked for by two commands, at most
// every 30 seconds; in between the last answer. Without the storage service only the internal one.
const std::vector<storage_state> &storage_states();

// The last answer of storage_states, without asking; empty when there is none, or an older one.
std::vector<storage_state> recent_storage_states(std::chrono::seconds age_max);

// Percent used of the partition that holds the path: 0 when the tool's output has no such number,
// -1 on error. `has_hung`, if given, tells whether that is because the tool did not answer.
int get_storage_use_pcent(const char *path, bool *has_hung = nullptr);

// Whether a storage with this usage may be written to.
bool storage_has_room(int percent_used);

// Whether the partition that holds the path has room: less than 90 percent are used. False, with a
// warning, when that can't be found out.
bool check_partition_usage(const char *path);

// Size of a directory tree in bytes, rounded to KiB; 0 when it can't be found out.
unsigned long get_dir_size_bytes(const std::string &path);

// A one-shot callback: logs what the running session occupies. Returns FALSE.
gboolean storage_consumption_log_message(gpointer) noexcept;
