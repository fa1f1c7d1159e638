#include "fileutil.h"

#include "glib_ptr.h"
#include "log.h"
#include "strutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

constexpr int removal_depth_max = 128;
constexpr std::size_t subdirectories_max = 100;

bool has_type(const char *path, mode_t type) {
    struct stat status {};
    return ::stat(path, &status) == 0 && (status.st_mode & S_IFMT) == type;
}

bool has_access(const char *path, int mode) {
    return ::access(path, mode) == 0;
}

// Works on descriptors relative to the parent, so that neither the length of a path nor a folder
// that is swapped for a link while the tree is being removed can lead elsewhere.
int remove_entries(int parent, const char *name, const std::string &path, int depth) {
    unique_fd descriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    unique_folder folder(descriptor ? ::fdopendir(descriptor.get()) : nullptr);
    if (!folder) {
        log_warning("Could not open dir for removal: %s", path.c_str());
        errno = 0;
        return 0;
    }
    const int folder_descriptor = descriptor.release(); // closed with the folder
    int removed = 0;
    while (const dirent *entry = ::readdir(folder.get())) {
        const char *entry_name = entry->d_name;
        if (std::strcmp(entry_name, ".") == 0 || std::strcmp(entry_name, "..") == 0) {
            continue;
        }
        struct stat status {};
        const bool folder_below =
            ::fstatat(folder_descriptor, entry_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(status.st_mode);
        if (folder_below) {
            if (depth < removal_depth_max) {
                removed += remove_entries(folder_descriptor, entry_name, path + "/" + entry_name,
                                          depth + 1);
            }
        } else if (::unlinkat(folder_descriptor, entry_name, 0) == 0) {
            ++removed;
        }
    }
    folder.reset();
    if (::unlinkat(parent, name, AT_REMOVEDIR) == 0) {
        ++removed;
    }
    errno = 0;
    return removed;
}

// --- Paths on storages

// The length of the trusted prefix of a path, up to a slash; 0 when the whole path is trusted.
std::size_t trusted_part(std::string_view path) {
    constexpr std::string_view storages = "/var/spool/storage/";
    constexpr std::string_view internal = "/usr/local/packages/Vandrel/localdata/";
    std::size_t size = 0;
    if (path.starts_with(internal)) {
        size = internal.size();
    } else if (path.starts_with(storages)) {
        const auto slash = path.find('/', storages.size());
        size = slash == std::string_view::npos ? 0 : slash + 1;
    }
    const auto below = path.find_first_not_of('/', size);
    return size == 0 || below == std::string_view::npos ? 0 : below;
}

// For kernels before 5.6: part after part.
int open_parts(int folder, std::string_view path, int flags, unsigned permissions) {
    unique_fd current;
    while (true) {
        const auto slash = path.find('/');
        const std::string part(path.substr(0, slash));
        path.remove_prefix(std::min(path.size(), part.size()));
        path.remove_prefix(std::min(path.size(), path.find_first_not_of('/')));
        if (part == "..") {
            errno = EXDEV;
            return -1;
        }
        const int from = current ? current.get() : folder;
        if (path.empty()) {
            return ::openat(from, part.c_str(), flags | O_NOFOLLOW, permissions);
        }
        current =
            unique_fd(::openat(from, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!current) {
            return -1;
        }
    }
}

int open_beneath(int folder, const char *path, int flags, unsigned permissions) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_NOFOLLOW);
    how.mode = (flags & O_CREAT) != 0 ? permissions : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const long opened = ::syscall(SYS_openat2, folder, path, &how, sizeof how);
    if (opened >= 0 || (errno != ENOSYS && errno != EPERM)) {
        return static_cast<int>(opened);
    }
    return open_parts(folder, path, flags, permissions);
}

// open(2) that follows no link below a storage's folder.
unique_fd open_path(const std::string &path, int flags, unsigned permissions = 0) {
    const std::size_t trusted = trusted_part(path);
    if (trusted == 0) {
        return unique_fd(::open(path.c_str(), flags | O_CLOEXEC, permissions));
    }
    const unique_fd storage(
        ::open(path.substr(0, trusted).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return storage ? unique_fd(open_beneath(storage.get(), path.c_str() + trusted,
                                            flags | O_CLOEXEC, permissions))
                   : unique_fd();
}

// A folder and a name in it, for the ...at() calls.
struct place {
    explicit place(const std::string &path) : name_(path) {
        if (trusted_part(path) == 0) {
            return;
        }
        const auto end = path.find_last_not_of('/') + 1;
        const auto slash = path.rfind('/', end - 1);
        name_ = path.substr(slash + 1, end - slash - 1);
        folder_ = open_path(path.substr(0, slash + 1), O_PATH | O_DIRECTORY);
        is_there_ = static_cast<bool>(folder_);
    }
    // A descriptor that no call accepts when the folder can't be reached.
    [[nodiscard]] int folder() const { return folder_ ? folder_.get() : is_there_ ? AT_FDCWD : -1; }
    [[nodiscard]] const char *name() const { return name_.c_str(); }

  private:
    unique_fd folder_;
    std::string name_;
    bool is_there_ = true;
};

bool is_written(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY;
}

constexpr std::string_view temporary_mark = ".tmp";

void sweep_entries(int parent, const char *name, long age_min, int depth) {
    unique_fd descriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    unique_folder folder(descriptor ? ::fdopendir(descriptor.get()) : nullptr);
    if (!folder) {
        return;
    }
    const int here = descriptor.release(); // closed with the folder
    while (const dirent *entry = ::readdir(folder.get())) {
        const char *entry_name = entry->d_name;
        struct stat status {};
        if (std::strcmp(entry_name, ".") == 0 || std::strcmp(entry_name, "..") == 0 ||
            ::fstatat(here, entry_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        const bool is_left_over = std::string_view(entry_name).starts_with(temporary_mark) &&
                                  std::time(nullptr) - status.st_mtime >= age_min;
        if (S_ISDIR(status.st_mode)) {
            if (is_left_over) {
                (void)remove_entries(here, entry_name, entry_name, 0);
            } else if (depth < removal_depth_max) {
                sweep_entries(here, entry_name, age_min, depth + 1);
            }
        } else if (!S_ISREG(status.st_mode) || is_left_over) {
            (void)::unlinkat(here, entry_name, 0);
        }
    }
}

// Copies at most size_max bytes of a regular file to a new one, flushed. The reason of a failure,
// or nullptr.
const char *copy_to_new(const char *from, const char *to, long long size_max) {
    const unique_fd source = file_descriptor(from, O_RDONLY | O_NOFOLLOW);
    struct stat status {};
    if (!source || ::fstat(source.get(), &status) != 0) {
        return errno == EINVAL ? "It is no regular file" : std::strerror(errno);
    }
    if (status.st_size > size_max) {
        return "It is too large";
    }
    unique_fd target = new_file_descriptor(to, 0644);
    std::array<char, 65536> piece;
    for (long long left = size_max; target && left > 0;) {
        const auto wanted = static_cast<std::size_t>(
            std::min<long long>(left, static_cast<long long>(piece.size())));
        const ssize_t count = TEMP_FAILURE_RETRY(::read(source.get(), piece.data(), wanted));
        if (count == 0) {
            break;
        }
        const ssize_t written = count < 0
                                    ? -1
                                    : TEMP_FAILURE_RETRY(::write(target.get(), piece.data(),
                                                                 static_cast<std::size_t>(count)));
        if (written != count) {
            return std::strerror(written < 0 ? errno : ENOSPC);
        }
        left -= count;
    }
    return target && ::fsync(target.get()) == 0 && target.close() == 0 ? nullptr
                                                                       : std::strerror(errno);
}

std::string temporary_beside(const std::string &path) {
    const auto slash = path.rfind('/') + 1; // 0 without a folder
    return path.substr(0, slash) + std::string(temporary_mark) + "_" + path.substr(slash);
}

bool put_on_storage(const char *path, std::string_view text) {
    const std::string temporary = temporary_beside(path);
    const place to(path);
    const place from(temporary);
    if (file_write_new(temporary.c_str(), text) &&
        ::renameat(from.folder(), from.name(), to.folder(), to.name()) == 0) {
        return true;
    }
    const std::string failure = std::strerror(errno);
    file_remove(temporary.c_str());
    log_warning("Could not put contents of '%s': %s", path, failure.c_str());
    return false;
}

void log_copy(const char *from, const char *to, const char *failure) {
    errno = 0;
    if (failure != nullptr) {
        log_warning("Could not copy '%s' to '%s': %s", from, to, failure);
    }
}

} // namespace

unique_fd file_descriptor(const char *path, int flags, unsigned permissions) {
    unique_fd descriptor =
        open_path(path, flags | O_NONBLOCK | (is_written(flags) ? O_NOFOLLOW : 0), permissions);
    struct stat status {};
    if (!descriptor || ::fstat(descriptor.get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return {};
    }
    return descriptor;
}

unique_fd new_file_descriptor(const char *path, unsigned permissions) {
    file_remove(path);
    return file_descriptor(path, O_WRONLY | O_CREAT | O_EXCL, permissions);
}

bool file_write_new(const char *path, std::string_view bytes) {
    unique_fd file = new_file_descriptor(path, 0644);
    while (file && !bytes.empty()) {
        const ssize_t written = TEMP_FAILURE_RETRY(::write(file.get(), bytes.data(), bytes.size()));
        if (written <= 0) {
            errno = written == 0 ? ENOSPC : errno;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return file && ::fsync(file.get()) == 0 && file.close() == 0;
}

unique_fd folder_descriptor(const char *path) {
    return open_path(path, O_RDONLY | O_DIRECTORY);
}

void sweep_tree(const char *path, long age_min) {
    if (const unique_fd folder = folder_descriptor(path)) {
        sweep_entries(folder.get(), ".", age_min, 0);
    }
    errno = 0;
}

bool is_directory(const char *path) {
    return has_type(path, S_IFDIR);
}
bool is_file(const char *path) {
    return has_type(path, S_IFREG);
}
bool is_readable(const char *path) {
    return has_access(path, R_OK);
}
bool is_writable(const char *path) {
    return has_access(path, W_OK);
}
bool is_executable(const char *path) {
    return has_access(path, X_OK);
}

bool can_append_or_warn(const char *path) {
    const place where(path);
    struct stat status {};
    const int failure =
        ::fstatat(where.folder(), where.name(), &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
    if (failure == 0 ? S_ISREG(status.st_mode) : failure == ENOENT) {
        errno = 0;
        return true;
    }
    errno = failure == 0 ? EINVAL : failure;
    log_cannot_open(path);
    return false;
}

long long filesize(const char *path) {
    struct stat status {};
    if (::stat(path, &status) != 0) {
        log_error("Failed getting filesize of %s", path);
        return -1;
    }
    return status.st_size;
}

void suffix_bytes(char *buffer, std::size_t size, long long bytes) {
    static constexpr const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    while (bytes > 1024 && unit + 1 < std::size(units)) {
        bytes /= 1024;
        ++unit;
    }
    const std::string text = format_bounded(size, "%lld %s", bytes, units[unit]);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
}

void filesize_human_readable(char *buffer, std::size_t size, const char *path) {
    suffix_bytes(buffer, size, filesize(path));
}

bool empty_file_if_possible(const char *path) {
    const unique_file file = file_open(path, "w");
    return file && ::fsync(::fileno(file.get())) == 0;
}

bool file_copy(const char *from, const char *to) {
    const place where(to);
    struct stat status {};
    if (::fstatat(where.folder(), where.name(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        log_copy(from, to, std::strerror(EEXIST));
        return false;
    }
    return file_copy_whole(from, to, LLONG_MAX);
}

bool file_copy_whole(const char *from, const char *to, long long size_max) {
    const std::string temporary = temporary_beside(to);
    const char *failure = copy_to_new(from, temporary.c_str(), size_max);
    if (failure == nullptr && !file_rename(temporary.c_str(), to)) {
        failure = "It can not get its name";
    }
    if (failure != nullptr) {
        file_remove(temporary.c_str());
    }
    log_copy(from, to, failure);
    return failure == nullptr;
}

bool make_folder(const char *path, unsigned permissions) {
    const place where(path);
    bool is_there = ::mkdirat(where.folder(), where.name(), static_cast<mode_t>(permissions)) == 0;
    if (!is_there && errno == EEXIST) {
        is_there = static_cast<bool>(open_path(path, O_PATH | O_DIRECTORY));
    }
    if (is_there) {
        errno = 0;
    }
    return is_there;
}

std::string file_name_of(std::string_view name) {
    constexpr std::size_t name_max = 90; // room for an ending, and for a session's directory
    std::string file(name.substr(0, name_max));
    for (char &ch : file) {
        if (ch == '/' || static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f) {
            ch = '_';
        }
    }
    if (file.empty() || file.front() == '.') {
        file.replace(0, 1, "_");
    }
    return file;
}

std::vector<std::string> get_subdirectories(const char *path, bool *are_all) {
    std::vector<std::string> names;
    const unique_folder folder(::opendir(path));
    if (!folder) {
        errno = 0;
        return names;
    }
    while (const dirent *entry = ::readdir(folder.get())) {
        if (entry->d_type != DT_DIR || std::strcmp(entry->d_name, ".") == 0 ||
            std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        if (names.size() == subdirectories_max) {
            if (are_all != nullptr) {
                *are_all = false;
            }
            break;
        }
        names.emplace_back(entry->d_name);
    }
    return names;
}

std::optional<std::string> file_get_contents(const char *path) {
    gchar *contents = nullptr;
    gsize length = 0;
    gerror_ptr error;
    if (g_file_get_contents(path, &contents, &length, error_out(error))) {
        const gchar_ptr owner(contents);
        return std::string(contents, length);
    }
    if (error) {
        log_warning("Could not read contents of '%s': %s", path, error->message);
    } else {
        log_warning("Could read contents of '%s', but no error code was set.", path);
    }
    return std::nullopt;
}

bool file_put_string(const char *path, std::string_view text) {
    if (trusted_part(path) != 0) {
        return put_on_storage(path, text);
    }
    constexpr auto whole_after_a_power_cut = static_cast<GFileSetContentsFlags>(
        G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    constexpr int readable_for_all = 0644;
    gerror_ptr error;
    if (g_file_set_contents_full(path, text.data(), static_cast<gssize>(text.size()),
                                 whole_after_a_power_cut, readable_for_all, error_out(error))) {
        return true;
    }
    if (error) {
        log_warning("Could not put contents of '%s': %s", path, error->message);
    } else {
        log_warning("Could put contents of '%s', but no error code was set.", path);
    }
    return false;
}

bool file_replace(const char *path, std::string_view text) {
    struct stat status {};
    const bool exists = ::lstat(path, &status) == 0;
    // Not the file itself where there is none: a power cut would leave it empty.
    const std::string tried = exists ? path : temporary_beside(path);
    if (!file_descriptor(tried.c_str(), O_WRONLY | O_CREAT)) {
        log_cannot_open(path);
        return false;
    }
    if (!exists) {
        file_remove(tried.c_str());
    }
    return file_put_string(path, text);
}

bool file_remove(const char *path) {
    const place where(path);
    const bool removed = ::unlinkat(where.folder(), where.name(), 0) == 0;
    errno = 0;
    return removed;
}

bool file_rename(const char *from, const char *to) {
    const place old_place(from);
    const place new_place(to);
    const bool renamed =
        ::renameat(old_place.folder(), old_place.name(), new_place.folder(), new_place.name()) == 0;
    errno = 0;
    return renamed;
}

int dir_remove_recursive(const char *path) {
    const place where(path);
    return remove_entries(where.folder(), where.name(), path, 0);
}

unique_file file_open(const char *path, const char *mode) {
    unique_fd descriptor = file_descriptor(path, *mode == 'r'   ? O_RDONLY
                                                 : *mode == 'w' ? O_WRONLY | O_CREAT | O_TRUNC
                                                                : O_WRONLY | O_CREAT | O_APPEND);
    unique_file file(descriptor ? ::fdopen(descriptor.get(), mode) : nullptr);
    if (file) {
        (void)descriptor.release();
    }
    return file;
}

unique_file file_open_or_warn(const char *path, const char *mode) {
    unique_file file = file_open(path, mode);
    if (!file) {
        log_cannot_open(path);
    }
    return file;
}

bool read_line(std::FILE *file, std::size_t max_characters, std::string &line) {
    line.clear();
    bool cut = false;
    for (std::size_t read = 0; read < max_characters; ++read) {
        const int ch = ::getc_unlocked(file);
        if (ch == EOF) {
            return read > 0;
        }
        cut = cut || ch == '\0';
        if (!cut) {
            line.push_back(static_cast<char>(ch));
        }
        if (ch == '\n') {
            break;
        }
    }
    return true;
}
