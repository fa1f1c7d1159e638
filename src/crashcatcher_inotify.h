// Catches the core dumps of crashing processes into the running session, each with a report of the
// device's state. Main loop only.
#pragma once

#include "vdrl_inotify.h"

#include <string>

// Sets crash detection up for a session whose "coredumps" folder is there; the last set-up stays. A
// watch that has died with its storage is made anew.
void create_dir_monitor(const std::string &session_directory);

// Takes crash detection back.
void inotify_gio_release();

// The watch's callback: answers a core that was written to its end.
void inotify_gio_process_event(const inotify_event &event, const char *name,
                               vdrl_inotify_watcher &watcher);

// Has the device's report saved beside the core `name` in the folder (ending in "/"), behind those
// that are being made (report_queue). Either may be null, which is logged.
void top_dir_callback(const char *folder, const char *name);
