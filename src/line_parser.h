// A child process whose output lines are handed one by one to a callback, on a thread of their own.
#pragma once

#include "handle.h"

#include <atomic>
#include <glib.h>
#include <memory>
#include <string>
#include <vector>

// Takes one line without its newline. Called on the reader's thread: what it shares with the main
// loop needs a lock of its own.
using process_line_cb = void (*)(const char *line);

// Called on the reader's thread when the lines that arrived together have all been delivered.
using process_pause_cb = void (*)();

// A line-reader child, whose lines are delivered at most a tenth of a second late: made by
// process_create, told to end by process_stop, joined by process_wait, freed by process_free, in
// this order.
struct thread_info {
    std::atomic<bool> run{true};      // false tells the reader to end
    std::atomic<bool> running{false}; // the reader works
    std::atomic<bool> at_end{false};  // the child's output has ended
    std::vector<std::string> command; // element 0 is the program's path
    process_line_cb callback = nullptr;
    process_pause_cb pause = nullptr; // or none
    GThread *thread = nullptr;
    unique_fd wake; // eventfd; readable once the reader shall end
};

// The longest line delivered, newline included; a longer one is dropped up to its newline.
inline constexpr std::size_t process_line_max = 4095;

// Starts the program at the path argv[0] with the null-terminated argv (at most 100 entries) and a
// thread that reads its output. Null, with a message, when there is no such program, there are too
// many arguments or no thread can be made. When the child ends, the reader sleeps until it is
// stopped.
std::unique_ptr<thread_info> process_create(const char *const argv[], process_line_cb callback,
                                            process_pause_cb pause = nullptr);

// Tells the reader to end its child and itself; returns at once. What the child has already printed
// is still delivered. Null is allowed.
void process_stop(thread_info *info);

// Joins the reader: returns once the child has ended (popen2_term says how long that may take), and
// no callback comes afterwards. Null is allowed; a second call does nothing.
void process_wait(thread_info *info);

// Frees the record after process_wait.
void process_free(std::unique_ptr<thread_info> &info);
