// A queue of slow commands, the reports of the device: they run one after the other, beside the
// main loop and with the limits of command_limits. Main loop only.
#pragma once

#include <chrono>
#include <functional>
#include <string>

struct report_job {
    std::string command; // for a shell
    std::string path;    // of its output, opened when it starts; "": the daemon's own output
    // Gets the wait status, or -1 with errno when the command or its file could not be opened.
    std::function<void(int wait_status)> done;
};

// Appends to the queue and returns. When the queue is full, `done` gets -1 with errno EBUSY at
// once.
void report_queue_add(report_job job);

// Waits for the queue, at most for `patience`; then ends the running command and cancels the others
// (`done` gets the status of a command ended by a signal).
void report_queue_finish(std::chrono::milliseconds patience);
