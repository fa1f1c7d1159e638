// Watches one path for changes; events are handled on the main loop.
#pragma once

#include "glib_ptr.h"

#include <cstdint>
#include <memory>
#include <string>
#include <sys/inotify.h>

struct vdrl_inotify_watcher;

// Takes one event: its header, its name ("" without one; valid until the callback returns) and the
// watcher. May destroy the watcher that it is called for. IN_IGNORED comes when the watched path is
// gone for good and needs no reaction.
using vdrl_inotify_cb = void (*)(const inotify_event &event, const char *name,
                                 vdrl_inotify_watcher &watcher);

// Made by vdrl_inotify_create, given back to vdrl_inotify_destroy by whoever holds it.
struct vdrl_inotify_watcher {
    std::string name; // the watched path
    giochannel_ptr gio;
    std::uint32_t mask = 0;
    int wd = -1;         // -1 once the kernel has given it up
    guint source_id = 0; // 0 once the source is gone
    vdrl_inotify_cb callback = nullptr;
    bool *destroyed = nullptr; // set while an event is handled
};

// Watches a path with an inotify mask. Null, with a message, when that can't be done. Main thread.
std::unique_ptr<vdrl_inotify_watcher> vdrl_inotify_create(const char *path, std::uint32_t mask,
                                                          vdrl_inotify_cb callback);

// Watches what is at the path now, which may be another file system than before; the same one goes
// on without losing an event. False when there is nothing to watch. Main thread.
bool vdrl_inotify_renew(vdrl_inotify_watcher &watcher);

// Ends the watch and empties the slot; an empty slot is allowed. Main thread.
void vdrl_inotify_destroy(std::unique_ptr<vdrl_inotify_watcher> &watcher);
