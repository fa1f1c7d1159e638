// Shell commands: run and waited for, or read through a pipe.
#pragma once

#include "handle.h"

#include <chrono>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// What system_ret returns when there is no exit status.
inline constexpr int system_ret_stopped = -1;
inline constexpr int system_ret_no_shell = -2;   // logged
inline constexpr int system_ret_no_command = -3; // the command was null
inline constexpr int system_ret_signal = -4;     // logged

// Every command that is waited for has a limit (command_limits). At its limit a command is killed
// with all that it has started, which is logged; the result is that of a command ended by a signal.
// So is that of a skipped tool. What a command starts with "&" is neither waited for nor killed.

// Runs a shell command, waits for it and returns its exit status (0 to 255) or one of the values
// above. The command inherits standard input, output and error, no other descriptor. Any thread.
// `output`, unless it is -1, is the command's standard output.
int system_ret(const char *command, int output = -1);

// The same for a command that ends in "&"; what goes on is the process group whose number is
// returned, or -1 after a log line. Main loop only.
pid_t start_in_background(const char *command);

// The processor time that a process group has used, in ticks; nothing when it has ended.
std::optional<unsigned long long> group_cpu_ticks(pid_t group);

// Runs the program at the path argv[0] without a shell, as the leader of a session of its own and
// without any open descriptor, and waits for it. waitpid's status, with errno ETIMEDOUT when it was
// killed at its limit; -1 with errno when it could not be started. Any thread.
int run_program(const char *const argv[], std::chrono::milliseconds limit);

// A shell command that runs while the daemon does other things.
struct running_command {
    pid_t pid = -1;             // for the caller to reap; the leader of a process group of its own
    std::vector<pid_t> feeding; // of a pipeline that needs no shell: the other processes
    unique_fd output; // reads its standard output; once closed, the command ends at its next write
};

// Starts it with empty standard input and the daemon's standard error, no other descriptor. A
// failure ends the process.
running_command start_command(const char *command);

// A shell command that runs beside the main loop, with the limit of its row.
class command_beside {
  public:
    // As with system_ret; a command that could not be started or is skipped has ended at once.
    command_beside(const char *command, int output);
    ~command_beside() { (void)end(); }
    command_beside(const command_beside &) = delete;
    command_beside &operator=(const command_beside &) = delete;

    // Its wait status once it has ended, or was ended at its limit; waits at most for `patience`.
    // -1, with errno, when it could not be started.
    std::optional<int> wait(std::chrono::milliseconds patience);

    // Ends it, if it still runs, with all that it has started: its wait status.
    int end();

    // The processor time of what runs of it, in ticks.
    [[nodiscard]] std::optional<unsigned long long> cpu_ticks() const {
        return group_cpu_ticks(pid_);
    }

  private:
    void finish(int status, bool was_ended);

    std::string command_;
    std::chrono::milliseconds begin_{};
    pid_t pid_ = -1;
    int status_ = -1;
    int failure_ = 0;
};

// Waits until a child has ended, at most for `limit`. As waitpid: 0 means that it still runs.
pid_t wait_for_child(pid_t pid, int *wait_status, std::chrono::milliseconds limit);

// A shell command whose output is read. A failure to start a shell ends the process. Only the time
// spent waiting for output counts against its limit, not that of a slow reader.
class command_pipe {
  public:
    explicit command_pipe(const char *command);
    // The same, but false afterwards, with errno, when no shell can be started.
    command_pipe(const char *command, std::nothrow_t);
    explicit operator bool() const noexcept { return has_hung_ || child_.pid >= 0; }
    ~command_pipe() { (void)close(); }
    command_pipe(const command_pipe &) = delete;
    command_pipe &operator=(const command_pipe &) = delete;

    // The next line as read_line of fileutil gives it.
    bool next_line(std::size_t max_characters, std::string &line);

    // The next bytes of output, as soon as there are any; empty at the end. Not to be mixed with
    // next_line.
    std::string next_piece();

    // Closes the pipe, waits for the command and returns its wait status as waitpid gives it, or
    // -1. A command that is still writing ends by SIGPIPE.
    int close() noexcept;

    // Whether it was ended at its limit, or left out.
    [[nodiscard]] bool has_hung() const noexcept { return has_hung_; }

  private:
    bool fill();

    std::string command_;
    running_command child_;
    std::chrono::milliseconds left_{};
    std::chrono::milliseconds waited_{};
    std::string buffer_; // read, but not yet given
    std::size_t given_ = 0;
    bool is_limited_ = false;
    bool has_hung_ = false;
};

// Whether a command, or the last program that its shell ran, was ended by a signal.
bool was_ended_by_signal(int wait_status);

// Reads all lines of a command's output (pieces of at most max_characters) and returns its wait
// status, or -1.
int command_read_lines(const char *command, std::size_t max_characters,
                       const std::function<void(const std::string &)> &take_line);
