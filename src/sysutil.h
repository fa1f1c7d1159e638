// Shell commands: run and waited for, or read through a pipe.
#pragma once

#include "handle.h"

#include <chrono>
#include <functional>
#include <string>

// What system_ret returns when there is no exit status.
inline constexpr int system_ret_stopped = -1;
inline constexpr int system_ret_no_shell = -2;   // logged
inline constexpr int system_ret_no_command = -3; // the command was null
inline constexpr int system_ret_signal = -4;     // logged

// Runs a shell command, waits for it and returns its exit status (0 to 255) or one of the values
// above. The command inherits standard input, output and error, no other descriptor. Any thread.
int system_ret(const char *command);

// The same for a command that may not end by itself: after the limit it and what it started are
// killed, and the result is system_ret_stopped.
int system_ret_within(const char *command, std::chrono::seconds limit);

// A shell command whose output is read. Not being able to start a shell ends the process.
class command_pipe {
  public:
    explicit command_pipe(const char *command);
    ~command_pipe() { (void)close(); }
    command_pipe(const command_pipe &) = delete;
    command_pipe &operator=(const command_pipe &) = delete;

    [[nodiscard]] std::FILE *file() const noexcept { return pipe_; }

    // The next line as read_line of fileutil gives it.
    bool next_line(std::size_t max_characters, std::string &line);

    // Closes the pipe, waits for the command and returns its wait status as waitpid gives it, or
    // -1. A command that is still writing ends by SIGPIPE.
    int close() noexcept;

  private:
    std::FILE *pipe_;
};

// Whether a command, or the last program that its shell ran, was ended by a signal.
bool was_ended_by_signal(int wait_status);

// Reads all lines of a command's output (pieces of at most max_characters) and returns its wait
// status, or -1.
int command_read_lines(const char *command, std::size_t max_characters,
                       const std::function<void(const std::string &)> &take_line);
