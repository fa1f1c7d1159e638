// Still images of a session, taken on a thread of their own through the platform's capture library,
// which is loaded at run time as not every device has it. Called on the main loop.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <tvparameter.h>
#include <utility>

// Loads the library; true when it has all that is needed, now or from before. A notice says if not.
bool vdrl_capture_load();

// Starts taking an image every `interval_s` seconds (above 1) into the folder, which is made if its
// parent is there. False, logged, when it could not be started, or runs already. What goes wrong on
// the thread is logged and ends it; capturing counts as running until it is stopped.
bool vdrl_capture_start(TVParameter *parameters, int interval_s, const std::string &folder);

// The same for every minute in which the storage can be used: starts once, and tries again what
// could not be started or has ended by itself. Of later tries only success is logged.
void vdrl_capture_keep_going(TVParameter *parameters, int interval_s, const std::string &folder);

// Ends capturing: no image appears after it returns. The thread is woken to end, not joined. May be
// called when nothing runs.
void vdrl_capture_stop();

// When the last image became visible, in seconds since 1970; 0 before the first of this run. Any
// thread.
std::time_t vdrl_capture_last_image();

// Joins the thread and unloads the library; refused while capturing runs. A library that does not
// come back from a call within three seconds stays loaded, which the log says.
void vdrl_capture_close();

// The largest of "1920x1080,1280x720,640x360": by width, then by height. Nothing without one. An
// entry counts only if a comma follows it, so the last one never does.
std::optional<std::pair<int, int>> parse_largest_resolution(std::string_view list);
