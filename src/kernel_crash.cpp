#include "kernel_crash.h"

#include "fileutil.h"
#include "log.h"
#include "session_globals.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <vector>

namespace {

constexpr std::size_t ls_command_size = 1024;
constexpr std::size_t ls_line_max = 255;
constexpr std::size_t listing_size = 1024;
constexpr std::size_t path_max = 255;
constexpr std::size_t output_line_max = 255;
constexpr unsigned dumps_folder_permissions = 0777;
constexpr std::string_view dump_mark = ".elf.lzo";

constexpr const char *flag_file = "/lib/persistent/.ENABLE_KERNEL_CRASHDUMPS";
constexpr const char *share_configuration = "/etc/sysconfig/crashdump.conf";
constexpr const char *enable_command = "sysctl -w debug.crashdump=storage";
constexpr const char *disable_command = "sysctl -w debug.crashdump=none";

// Where dumps of one kind of storage lie, and which of them are known: the names in the folder
// joined by ",". A listing that is not loaded yet comes from its file.
struct dump_storage {
    const char *dumps_folder;
    bool is_share; // the folder's name ends in "_SERIAL"
    const char *listing_file;
    std::optional<std::string> listing;
    std::vector<std::string> announced; // found, but not copied yet
};

dump_storage storages[] = {
    {"/var/spool/storage/SD_DISK/dumps",
     false,
     "/usr/local/packages/Vandrel/localdata/kernel_crash_listing_sd_card.txt",
     {},
     {}},
    {"/var/spool/storage/HDD_DISK/dumps",
     false,
     "/usr/local/packages/Vandrel/localdata/kernel_crash_listing_hdd.txt",
     {},
     {}},
    {"/var/spool/storage/NetworkShare/dumps",
     true,
     "/usr/local/packages/Vandrel/localdata/kernel_crash_listing_nas.txt",
     {},
     {}},
};

// Nothing for the share without a serial number.
std::optional<std::string> folder_of(const dump_storage &storage,
                                     const std::optional<std::string> &serial) {
    if (!storage.is_share) {
        return storage.dumps_folder;
    }
    if (!serial) {
        return std::nullopt;
    }
    return format_text("%s_%s", storage.dumps_folder, serial->c_str());
}

// The names listed in a folder joined by ",", cut to what fits a text of `capacity` bytes.
// Nothing when it could not be listed whole.
std::optional<std::string> get_names_listed_from_directory(const std::string &path,
                                                           std::size_t capacity) {
    std::string names;
    const int status =
        command_read_lines(format_bounded(ls_command_size, "ls \"%s\"", path.c_str()).c_str(),
                           ls_line_max, [&names](std::string line) {
                               str_terminate_at(line, '\n');
                               names.append(names.empty() ? "" : ",").append(line);
                           });
    if (status != 0) {
        return std::nullopt;
    }
    return names.substr(0, capacity == 0 ? 0 : capacity - 1);
}

std::optional<std::string> current_listing(const std::string &folder) {
    errno = 0;
    if (!is_directory(folder.c_str())) {
        log_error("Failed to create a listing");
        return std::nullopt;
    }
    auto names = get_names_listed_from_directory(folder, listing_size);
    if (!names) {
        errno = 0;
        log_error("Failed to create a listing");
    }
    return names;
}

// The first line of the listing's file, if there is one.
bool load_listing(dump_storage &storage) {
    if (!is_file(storage.listing_file)) {
        return false;
    }
    const unique_file file = file_open_or_warn(storage.listing_file, "r");
    std::string line;
    if (file) {
        (void)read_line(file.get(), listing_size - 1, line);
        str_terminate_at(line, '\n');
    }
    storage.listing = line;
    return true;
}

bool save_listing(const dump_storage &storage) {
    if (file_put_string(storage.listing_file, storage.listing.value_or(""))) {
        return true;
    }
    errno = 0;
    log_error("Could not save kernel crash listing to '%s'", storage.listing_file);
    return false;
}

std::vector<std::string> names_of(const std::string &listing) {
    std::vector<std::string> names;
    for (std::size_t start = 0; start < listing.size();) {
        const std::size_t end = std::min(listing.find(',', start), listing.size());
        names.push_back(listing.substr(start, end - start));
        start = end + 1;
    }
    return names;
}

// False when it was announced before: its copy failed then and is retried.
bool announce(dump_storage &storage, const std::string &name) {
    if (std::find(storage.announced.begin(), storage.announced.end(), name) !=
        storage.announced.end()) {
        return false;
    }
    storage.announced.push_back(name);
    log_info(
        "Systemlog kernel crash detection: Found new kernel crash archive, %s, will copy it to "
        "the monitoring session under 'coredumps'.",
        name.c_str());
    return true;
}

// Checked first: a copy that does not fit would fill the storage each minute anew.
bool has_room(const std::string &folder, long long size) {
    struct statvfs storage {};
    return ::statvfs(folder.c_str(), &storage) != 0 ||
           static_cast<unsigned long long>(storage.f_bavail) * storage.f_frsize >
               static_cast<unsigned long long>(std::max(size, 0LL));
}

// True when it is in the session afterwards.
bool copy_dump(dump_storage &storage, const std::string &folder, const std::string &name,
               const std::string &session_directory) {
    const std::string from = folder + "/" + name;
    const std::string to = session_directory + "/coredumps/" + name;
    if (from.size() > path_max || to.size() > path_max) {
        errno = 0;
        log_error("Kernel crash archive %s is left out: its path is too long.", name.c_str());
        return true; // trying again is of no use
    }
    if (is_file(to.c_str())) {
        return true; // copied before a restart of the daemon
    }
    const bool is_first_try = announce(storage, name);
    if (!has_room(session_directory, filesize(from.c_str()))) {
        if (is_first_try) {
            errno = 0;
            log_warning("Kernel crash archive %s is not copied as long as the storage has no room "
                        "for it.",
                        name.c_str());
        }
        return false;
    }
    if (!file_copy_whole(from.c_str(), to.c_str(), LLONG_MAX)) {
        return false;
    }
    ++occurrences.kernel_dumps;
    // The watch for cores reacts to the close of a file, not to a rename.
    (void)file_open(to.c_str(), "a");
    return true;
}

void update_storage(dump_storage &storage, const std::string &folder,
                    const std::string &session_directory) {
    if (!is_directory(folder.c_str())) {
        return;
    }
    const auto current = get_names_listed_from_directory(folder, listing_size);
    if (!current) {
        return; // with a partial listing the others would count as new
    }
    if (!storage.listing && !load_listing(storage)) {
        storage.listing = current; // what is there at the first look is old
        (void)save_listing(storage);
    }
    bool copied_one = false;
    bool copied_all = true;
    for (const std::string &name : names_of(*current)) {
        if (name.find(dump_mark) == std::string::npos ||
            storage.listing->find(name) != std::string::npos) {
            continue;
        }
        const bool copied = copy_dump(storage, folder, name, session_directory);
        copied_one = copied_one || copied;
        copied_all = copied_all && copied;
    }
    if (copied_one && copied_all) {
        storage.listing = current;
        storage.announced.clear();
    }
}

// Nothing when the tool failed or printed nothing: no reason to restart a device.
std::optional<bool> asked_setting() {
    command_pipe pipe("sysctl debug.crashdump");
    std::string line;
    if (!pipe.next_line(output_line_max, line) ||
        line.find("debug.crashdump =") == std::string::npos) {
        return std::nullopt;
    }
    return line.find("debug.crashdump = storage") != std::string::npos;
}

// The flag file keeps the facility on across restarts. 1 when it exists, so that a restart helps.
int switch_on() {
    const bool opened = static_cast<bool>(file_open(flag_file, "a"));
    const bool is_there = opened && is_file(flag_file);
    if (!opened) {
        log_error("Could not enable persistent crash catching.");
    } else if (!is_there) {
        log_error("Could not enable persistent crash catching because file could not be created.");
    }
    (void)system_ret(enable_command);
    return is_there ? 1 : 0;
}

int setup_storage(dump_storage &storage, const std::string &folder,
                  const std::string &session_directory) {
    // Files in an empty mount point would fill the camera's own memory.
    if (!is_mount_point(folder.substr(0, folder.rfind('/')))) {
        return 0;
    }
    if (load_listing(storage)) {
        update_storage(storage, folder, session_directory);
    } else {
        if (!make_folder(folder.c_str(), dumps_folder_permissions)) {
            errno = 0;
            return 0;
        }
        storage.listing = current_listing(folder);
        if (!storage.listing) {
            return 0;
        }
    }
    if (!save_listing(storage)) {
        return 0;
    }
    if (storage.is_share) {
        (void)make_folder("/etc/sysconfig", 0755);
        const std::string name = folder.substr(folder.rfind('/') + 1);
        file_put_string(share_configuration,
                        "[Crashdump]\nDiskID = NetworkShare\nPath = " + name + "\n");
    }
    return switch_on();
}

} // namespace

bool kernel_crash_enabled() {
    return asked_setting().value_or(false);
}

bool kernel_crash_waits_for_restart() {
    return is_file(flag_file) && !kernel_crash_enabled();
}

int setup_kernel_crash_monitor(const std::string &session_directory,
                               const std::optional<std::string> &serial) {
    int restart_is_needed = 0;
    for (dump_storage &storage : storages) {
        const auto folder = folder_of(storage, serial);
        if (folder && !kernel_crash_enabled() &&
            setup_storage(storage, *folder, session_directory) != 0) {
            restart_is_needed = 1;
        }
    }
    return restart_is_needed != 0 && asked_setting() == false ? 1 : 0;
}

void update_kernel_crash_status(const std::string &session_directory,
                                const std::optional<std::string> &serial) {
    for (dump_storage &storage : storages) {
        const auto folder = folder_of(storage, serial);
        if (folder && monitory_active) {
            update_storage(storage, *folder, session_directory);
        }
    }
}

int disable_kernel_crash_monitor(const std::optional<std::string> &serial) {
    int restart_is_needed = 0;
    for (dump_storage &storage : storages) {
        const auto folder = folder_of(storage, serial);
        if (!folder) {
            continue;
        }
        // Dumps that this session has are not new to the next one.
        if (storage.listing) {
            (void)save_listing(storage);
        }
        if (storage.is_share) {
            file_remove(share_configuration);
        }
        const bool was_on = file_remove(flag_file);
        (void)system_ret(disable_command);
        if (was_on && kernel_crash_enabled()) {
            restart_is_needed = 1;
        }
    }
    return restart_is_needed;
}
