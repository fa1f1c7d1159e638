#include "fileutil.h"

#include "glib_ptr.h"
#include "log.h"
#include "strutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int removal_depth_max = 128;

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

// Copies to a new file, flushed; what grows meanwhile is cut at size_max.
bool copy_bytes(int source, const char *to, long long size_max) {
    unique_fd target(::open(to, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    std::array<char, 65536> piece;
    for (long long left = size_max; target && left > 0;) {
        const auto wanted = static_cast<std::size_t>(
            std::min<long long>(left, static_cast<long long>(piece.size())));
        const ssize_t count = TEMP_FAILURE_RETRY(::read(source, piece.data(), wanted));
        if (count == 0) {
            break;
        }
        if (count < 0) {
            return false;
        }
        const ssize_t written = TEMP_FAILURE_RETRY(
            ::write(target.get(), piece.data(), static_cast<std::size_t>(count)));
        if (written != count) {
            errno = written < 0 ? errno : ENOSPC;
            return false;
        }
        left -= count;
    }
    return target && ::fsync(target.get()) == 0 && target.close() == 0;
}

} // namespace

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
    struct stat status {};
    const int failure = ::lstat(path, &status) == 0 ? 0 : errno;
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
    const gobject_ptr<GFile> source(g_file_new_for_path(from));
    const gobject_ptr<GFile> target(g_file_new_for_path(to));
    gerror_ptr error;
    if (g_file_copy(source.get(), target.get(), G_FILE_COPY_TARGET_DEFAULT_PERMS, nullptr, nullptr,
                    nullptr, error_out(error))) {
        return true;
    }
    if (error) {
        log_warning("Could not copy '%s' to '%s': %s", from, to, error->message);
    } else {
        log_warning("Could not copy '%s' to '%s', but no error code was set.", from, to);
    }
    return false;
}

bool file_copy_whole(const char *from, const char *to, long long size_max) {
    const std::string target = to;
    const auto slash = target.rfind('/') + 1; // 0 without a folder
    const std::string temporary = target.substr(0, slash) + ".tmp_" + target.substr(slash);
    const unique_fd source(::open(from, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    const char *failure = nullptr;
    if (!source || ::fstat(source.get(), &status) != 0) {
        failure = std::strerror(errno);
    } else if (!S_ISREG(status.st_mode) || status.st_size > size_max) {
        failure = "It is no regular file, or too large";
    } else if (!copy_bytes(source.get(), temporary.c_str(), size_max) ||
               ::rename(temporary.c_str(), to) != 0) {
        failure = std::strerror(errno);
        file_remove(temporary.c_str());
    }
    errno = 0;
    if (failure != nullptr) {
        log_warning("Could not copy '%s' to '%s': %s", from, to, failure);
    }
    return failure == nullptr;
}

bool make_folder(const char *path, unsigned permissions) {
    const bool is_there =
        is_directory(path) || ::mkdir(path, static_cast<mode_t>(permissions)) == 0;
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
    return file_open_or_warn(path, "a") && file_put_string(path, text);
}

bool file_remove(const char *path) {
    const bool removed = ::unlink(path) == 0;
    errno = 0;
    return removed;
}

bool file_rename(const char *from, const char *to) {
    const bool renamed = ::rename(from, to) == 0;
    errno = 0;
    return renamed;
}

int dir_remove_recursive(const char *path) {
    return remove_entries(AT_FDCWD, path, path, 0);
}

unique_file file_open(const char *path, const char *mode) {
    const int how = *mode == 'r'   ? O_RDONLY
                    : *mode == 'w' ? O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW
                                   : O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW;
    unique_fd descriptor(::open(path, how | O_NONBLOCK | O_CLOEXEC, 0666));
    struct stat status {};
    if (!descriptor || ::fstat(descriptor.get(), &status) != 0) {
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    unique_file file(::fdopen(descriptor.get(), mode));
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
