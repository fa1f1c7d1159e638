// The simulated camera's parameter store: /etc/tvparameter/parameters.conf, a line "NAME=VALUE" for
// each parameter. Readers need no lock, since the file is only ever replaced.
#include "tvparameter.h"

#include "handle.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <gio/gio.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

struct TVParameter {};

namespace {

constexpr const char *store_path = "/etc/tvparameter/parameters.conf";
constexpr const char *lock_path = "/etc/tvparameter/.lock";

void set_errno_error(GError **error, int number, const char *path) {
    g_set_error(error, G_IO_ERROR, g_io_error_from_errno(number), "%s: %s", path,
                g_strerror(number));
}

std::optional<std::string> read_store(GError **error) {
    const unique_file file(fopen(store_path, "re"));
    std::string content;
    char piece[4096];
    while (file) {
        const size_t count = fread(piece, 1, sizeof piece, file.get());
        content.append(piece, count);
        if (count < sizeof piece && ferror(file.get()) == 0)
            return content;
        if (count < sizeof piece)
            break;
    }
    set_errno_error(error, errno, store_path);
    return std::nullopt;
}

struct Place {
    size_t begin;
    size_t length;
};

// Where the value of a parameter stands in the store's text; the first line of a name counts.
std::optional<Place> find_value(std::string_view content, std::string_view name) {
    for (size_t begin = 0; begin < content.size();) {
        const size_t end = std::min(content.find('\n', begin), content.size());
        const std::string_view line = content.substr(begin, end - begin);
        if (line.size() > name.size() && line.starts_with(name) && line[name.size()] == '=')
            return Place{begin + name.size() + 1, line.size() - name.size() - 1};
        begin = end + 1;
    }
    return std::nullopt;
}

// The store's text with the parameter set, everything else as it was.
std::string with_value(const std::string &content, const std::string &name, const char *value) {
    if (const std::optional<Place> place = find_value(content, name))
        return content.substr(0, place->begin) + value +
               content.substr(place->begin + place->length);
    const bool unfinished = !content.empty() && content.back() != '\n';
    return content + (unfinished ? "\n" : "") + name + "=" + value + "\n";
}

bool is_name(const gchar *name) {
    return name && *name && !strpbrk(name, "=\r\n");
}

} // namespace

TVParameter *tv_parameter_new(const gchar *, GError **error) {
    return read_store(error) ? std::make_unique<TVParameter>().release() : nullptr;
}

gboolean tv_parameter_get(TVParameter *handle, const gchar *name, gchar **value, GError **error) {
    *value = nullptr;
    if (!handle || !is_name(name)) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            handle ? "not a parameter name" : "no parameter handle");
        return FALSE;
    }
    const std::optional<std::string> content = read_store(error);
    if (!content)
        return FALSE;
    const std::optional<Place> place = find_value(*content, name);
    if (!place) {
        g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "no parameter '%s'", name);
        return FALSE;
    }
    *value = g_strndup(content->data() + place->begin, place->length);
    return TRUE;
}

gboolean tv_parameter_set(TVParameter *handle, const gchar *name, const gchar *value,
                          gboolean save_now, GError **error) {
    if (!handle || !is_name(name) || !value || strpbrk(value, "\r\n")) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            handle ? "not a parameter name or value" : "no parameter handle");
        return FALSE;
    }
    // Opened anew by each caller, so it keeps threads apart as well as processes.
    const unique_file lock(fopen(lock_path, "ae"));
    if (!lock || TEMP_FAILURE_RETRY(flock(fileno(lock.get()), LOCK_EX)) != 0) {
        set_errno_error(error, errno, lock_path);
        return FALSE;
    }
    const std::optional<std::string> content = read_store(error);
    if (!content)
        return FALSE;
    const std::string changed = with_value(*content, name, value);
    struct stat present;
    const int mode =
        stat(store_path, &present) == 0 ? static_cast<int>(present.st_mode & 07777) : 0644;
    const auto replaced = static_cast<GFileSetContentsFlags>(
        G_FILE_SET_CONTENTS_CONSISTENT | (save_now != FALSE ? G_FILE_SET_CONTENTS_DURABLE : 0));
    return g_file_set_contents_full(store_path, changed.data(), static_cast<gssize>(changed.size()),
                                    replaced, mode, error);
}

void tv_parameter_free(TVParameter *handle) {
    const std::unique_ptr<TVParameter> owned(handle);
}
