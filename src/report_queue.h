// Commands that collect all that there is of the device, which takes long: one after the other,
// beside the main loop and with the limits of command_limits. Main loop only.
#pragma once

#include <chrono>
#include <functional>
#include <string>

struct report_job {
    std::string command; // for a shell
    std::string path;    // gets its output, opened once it is its turn; "": the daemon's own
    // Gets the wait status, or -1 with errno when it could not be started or its file not be
    // opened.
    std::function<void(int wait_status)> done;
};

// Puts it at the end of the queue and returns. Of very many, the last are refused: `done` gets -1
// with errno EBUSY before it returns.
void report_queue_add(report_job job);

// Waits, at most for `patience`, until all have run; ends the one that runs then, and gives the
// others the status of a command ended by a signal.
void report_queue_finish(std::chrono::milliseconds patience);
