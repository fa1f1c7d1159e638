#include "vdrl_inotify.h"

#include "log.h"
#include "loop.h"

#include <cerrno>
#include <vector>

namespace {

enum class read_result { complete, nothing, failed };

// Fills the whole buffer, repeating short reads. The channel's buffer takes whole events from the
// kernel, so a short result only means that there is no event.
read_result read_exactly(GIOChannel *channel, char *buffer, std::size_t size) {
    std::size_t filled = 0;
    while (filled < size) {
        gsize count = 0;
        gerror_ptr error;
        const GIOStatus status = g_io_channel_read_chars(channel, buffer + filled, size - filled,
                                                         &count, error_out(error));
        if (status == G_IO_STATUS_ERROR) {
            log_warning("Error reading from the inotify: %s",
                        error ? error->message : "Unknown error.");
            return read_result::failed;
        }
        if (count == 0) {
            return read_result::nothing;
        }
        filled += count;
    }
    return read_result::complete;
}

gboolean handle_event(GIOChannel *channel, GIOCondition, gpointer data) noexcept {
    auto *watcher = static_cast<vdrl_inotify_watcher *>(data);
    // One event a wake-up; GLib calls again at once while its buffer holds more.
    inotify_event event{};
    read_result result = read_exactly(channel, reinterpret_cast<char *>(&event), sizeof event);
    std::vector<char> name;
    if (result == read_result::complete) {
        name.resize(static_cast<std::size_t>(event.len) + 1);
        result = read_exactly(channel, name.data(), event.len);
    }
    if (result == read_result::failed) {
        watcher->source_id = 0;
        return G_SOURCE_REMOVE;
    }
    if (result == read_result::complete) {
        if ((event.mask & IN_IGNORED) != 0 && event.wd == watcher->wd) {
            watcher->wd = -1;
        }
        bool destroyed = false;
        watcher->destroyed = &destroyed;
        watcher->callback(event, name.data(), *watcher);
        if (destroyed) {
            return G_SOURCE_REMOVE;
        }
        watcher->destroyed = nullptr;
    }
    return G_SOURCE_CONTINUE;
}

} // namespace

std::unique_ptr<vdrl_inotify_watcher> vdrl_inotify_create(const char *path, std::uint32_t mask,
                                                          vdrl_inotify_cb callback) {
    unique_fd descriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!descriptor) {
        log_error("Error when initiating inotify_init");
        return nullptr;
    }
    giochannel_ptr channel(g_io_channel_unix_new(descriptor.get()));
    if (!channel) {
        log_warning("Couldn't open GIOChannel");
        return nullptr;
    }
    const int wd = ::inotify_add_watch(descriptor.get(), path, mask);
    if (wd < 0) {
        log_error("inotify_add_watch error.");
        log_error("Failed to add watch for '%s'", path);
        return nullptr;
    }
    (void)descriptor.release(); // closed when the channel is shut down
    // Events are bytes, not text; the buffer stays, since a read must take whole events.
    g_io_channel_set_encoding(channel.get(), nullptr, nullptr);

    auto watcher = std::make_unique<vdrl_inotify_watcher>();
    watcher->name = path;
    watcher->gio = std::move(channel);
    watcher->mask = mask;
    watcher->wd = wd;
    watcher->callback = callback;
    watcher->source_id = loop_add_channel(watcher->gio.get(), G_IO_IN, handle_event, watcher.get());
    return watcher;
}

bool vdrl_inotify_renew(vdrl_inotify_watcher &watcher) {
    // The kernel gives a path's watch the same number again as long as it is the same folder.
    const int descriptor = g_io_channel_unix_get_fd(watcher.gio.get());
    const int wd = ::inotify_add_watch(descriptor, watcher.name.c_str(), watcher.mask);
    if (wd < 0) {
        errno = 0;
        return false;
    }
    if (watcher.wd >= 0 && watcher.wd != wd) {
        (void)::inotify_rm_watch(descriptor, watcher.wd);
        errno = 0;
    }
    watcher.wd = wd;
    return true;
}

void vdrl_inotify_destroy(std::unique_ptr<vdrl_inotify_watcher> &watcher) {
    if (!watcher) {
        return;
    }
    const std::unique_ptr<vdrl_inotify_watcher> owned = std::move(watcher);
    if (owned->destroyed != nullptr) {
        *owned->destroyed = true;
    }
    if (owned->source_id != 0) {
        loop_remove(owned->source_id);
    }
    // The kernel takes the watch of a deleted file away by itself, and says so only afterwards.
    if (owned->wd >= 0 &&
        ::inotify_rm_watch(g_io_channel_unix_get_fd(owned->gio.get()), owned->wd) != 0 &&
        errno != EINVAL) {
        log_error("inotify_rm_watch error, wd:%d", owned->wd);
    }
    errno = 0;
    gerror_ptr error;
    if (g_io_channel_shutdown(owned->gio.get(), FALSE, error_out(error)) == G_IO_STATUS_ERROR) {
        if (error) {
            log_warning("Couldn't close GIOChannel: %s", error->message);
        } else {
            log_warning("Couldn't close GIOChannel");
        }
    }
}
