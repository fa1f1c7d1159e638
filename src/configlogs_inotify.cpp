#include "configlogs_inotify.h"

#include "csv.h"
#include "dateutil.h"
#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "session_globals.h"
#include "vdrl_inotify.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <sys/stat.h>
#include <utility>

namespace {

constexpr unsigned folder_permissions = 0777;       // they are entered after unzipping, too
constexpr long long configuration_max = 10LL << 20; // bytes; a larger file is no configuration

// Which version of a file it is; a file that changes gets another one.
struct file_version {
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};

    bool operator==(const file_version &other) const {
        return inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
};

// A package: made by the set-up with the session, emptied by the release.
struct config_watcher {
    std::string package;
    std::unique_ptr<vdrl_inotify_watcher> watch;
    ino_t watched = 0;       // the inode under the watch
    file_version copied;     // the version that the session has, or that can't be copied
    std::size_t content = 0; // hash of that
    bool is_due = false;     // the session lacks the version that the package has
    std::time_t last_copy{}; // names of copies have a resolution of a second
    guint timer = 0;         // a copy that waits for the next second
};

std::array<config_watcher, config_watchers_max> config_watchers;
bool are_set_up = false;

std::string configuration_path(const std::string &package) {
    return "/usr/local/packages/" + package + "/localdata/config.json";
}

std::string copies_folder(const std::string &session) {
    return session + "/system_monitoring/monitoring_vela_configs";
}

// The version of a plain file; nothing for anything else: neither a link into another package's
// secrets nor a pipe that blocks is a configuration.
std::optional<file_version> version_of(const std::string &path) {
    struct stat status {};
    const bool is_plain =
        ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && is_readable(path.c_str());
    errno = 0;
    return is_plain ? std::optional(file_version{status.st_ino, status.st_size, status.st_mtim})
                    : std::nullopt;
}

std::size_t content_of(const std::string &path, const file_version &version) {
    const auto text =
        version.size <= configuration_max ? file_get_contents(path.c_str()) : std::nullopt;
    return text ? std::hash<std::string>{}(*text) : 0;
}

// Copies the current configuration. A version that is itself unusable is not retried; one that the
// storage refused is.
bool copy_configuration(const std::string &session, config_watcher &slot, bool initial) {
    const std::string path = configuration_path(slot.package);
    const auto version = version_of(path);
    const auto name = output_filename_with_date_and_time(initial);
    if (!version || !name) {
        return false;
    }
    const std::string folder = copies_folder(session);
    make_folder(folder.c_str(), folder_permissions);
    make_folder((folder + "/" + slot.package).c_str(), folder_permissions);
    errno = 0;
    slot.last_copy = std::time(nullptr);
    slot.content = content_of(path, *version); // before the copy: later changes differ from it
    const bool copied = file_copy_whole(
        path.c_str(), (folder + "/" + slot.package + "/" + *name).c_str(), configuration_max);
    slot.copied = *version;
    slot.is_due = !copied && version->size <= configuration_max;
    return copied;
}

void record_change(config_watcher &slot);

gboolean record_late_change(gpointer data) noexcept {
    auto *slot = static_cast<config_watcher *>(data);
    slot->timer = 0;
    record_change(*slot);
    return G_SOURCE_REMOVE;
}

// Debounce: each write to the file is an event, but at most one copy a second is made, the last
// one with the last contents.
void record_change(config_watcher &slot) {
    const auto session = session_directory();
    const auto version = version_of(configuration_path(slot.package));
    if (!monitory_active || !session || !version || (*version == slot.copied && !slot.is_due)) {
        return;
    }
    if (slot.last_copy == std::time(nullptr)) {
        if (slot.timer == 0) {
            slot.timer = loop_add_seconds(1, record_late_change, &slot);
        }
        return;
    }
    if (!is_directory(session->c_str())) {
        slot.is_due = true; // said when the storage went
        return;
    }
    if (!copy_configuration(*session, slot, false)) {
        return;
    }
    log_info("VELA Configuration changed for package %s", slot.package.c_str());
    append_rows(copies_folder(*session) + "/changes.txt", "",
                slot.package + " modified and copied to " +
                    output_filename_with_date_and_time(false).value_or("") + "\n");
}

void empty_slot(config_watcher &slot) {
    vdrl_inotify_destroy(slot.watch);
    if (slot.timer != 0) {
        loop_remove(slot.timer);
    }
    slot = {};
}

config_watcher *slot_of(const std::string &path) {
    for (config_watcher &slot : config_watchers) {
        if (slot.watch && slot.watch->name == path) {
            return &slot;
        }
    }
    return nullptr;
}

void configlogs_inotify_gio_process_event(const inotify_event &event, const char *,
                                          vdrl_inotify_watcher &watcher) {
    const auto session = session_directory();
    if (!session || (event.mask & (IN_MODIFY | IN_DELETE_SELF)) == 0) {
        return;
    }
    const std::string path = watcher.name;
    config_watcher *slot = slot_of(path);
    errno = 0;
    if (slot == nullptr) {
        log_error("Could not find watcher for '%s' among configuration watchers.", path.c_str());
        return;
    }
    if ((event.mask & IN_DELETE_SELF) == 0) {
        record_change(*slot);
        return;
    }
    const auto package = get_package_name_from_path(path);
    if (!package) {
        log_error("Could not get package name from path %s", path.c_str());
        return;
    }
    configlogs_inotify_gio_setup(*session, *package,
                                 static_cast<int>(slot - config_watchers.data()));
}

void set_up_all(const std::string &session) {
    int index = 0;
    bool are_all = true;
    for (const std::string &package : get_subdirectories("/usr/local/packages", &are_all)) {
        configlogs_inotify_gio_setup(session, package, index++);
    }
    if (!are_all) {
        log_warning("Of the installed packages only %d are watched for changes of their "
                    "configuration.",
                    index);
    }
}

void catch_up(const std::string &session) {
    for (std::size_t i = 0; i < config_watchers.size(); ++i) {
        config_watcher &slot = config_watchers[i];
        if (slot.package.empty()) {
            continue;
        }
        // A replaced file that somebody has open gives its event only when it is closed.
        const auto version = version_of(configuration_path(slot.package));
        if (version && (!slot.watch || version->inode != slot.watched)) {
            configlogs_inotify_gio_setup(session, std::string(slot.package), static_cast<int>(i));
        } else if (slot.watch && version &&
                   (slot.is_due ||
                    (!(*version == slot.copied) &&
                     content_of(configuration_path(slot.package), *version) != slot.content))) {
            record_change(slot);
        } else if (slot.watch && version) {
            slot.copied = *version; // it was touched
        }
    }
}

} // namespace

void configlogs_inotify_gio_setup(const std::string &session_directory, const std::string &package,
                                  int index) {
    errno = 0;
    if (index < 0 || index >= config_watchers_max) {
        log_error("Cannot setup more than 100 configlog watchers, tried with %d.", index);
        return;
    }
    config_watcher &slot = config_watchers[static_cast<std::size_t>(index)];
    empty_slot(slot);
    slot.package = package;
    const std::string path = configuration_path(package);
    const auto version = version_of(path);
    if (!version) {
        return;
    }
    slot.watched = version->inode;
    // Watched before it is copied, so that no change falls between.
    slot.watch = vdrl_inotify_create(path.c_str(), IN_MODIFY | IN_DELETE_SELF,
                                     configlogs_inotify_gio_process_event);
    if (!slot.watch) {
        log_error("Could not create configlog watcher for '%s'.", path.c_str());
        return;
    }
    slot.is_due = true;
    if (is_directory(session_directory.c_str())) {
        (void)copy_configuration(session_directory, slot, true);
    }
    log_info("Configlog file added");
}

void configlogs_inotify_gio_keep_watching(const std::string &session_directory) {
    if (!is_directory(session_directory.c_str())) {
        return;
    }
    if (!std::exchange(are_set_up, true)) {
        set_up_all(session_directory);
    }
    catch_up(session_directory);
}

void configlogs_inotify_gio_release() {
    are_set_up = false;
    for (config_watcher &slot : config_watchers) {
        empty_slot(slot);
    }
}

std::optional<std::string> get_package_name_from_path(const std::string &path) {
    constexpr std::string_view marker = "packages/";
    const auto found = path.find(marker);
    if (found == std::string::npos) {
        return std::nullopt;
    }
    const auto start = found + marker.size();
    const auto end = path.find('/', start);
    return end == std::string::npos || end == start
               ? std::nullopt
               : std::optional(path.substr(start, end - start));
}

std::optional<std::string> output_filename_with_date_and_time(bool initial) {
    const std::string stamp = date_format_now("%y%m%d_%H_%M_%S");
    return stamp.empty() ? std::nullopt
                         : std::optional(stamp + (initial ? "-initial" : "") + ".json");
}
