#include "sysutil.h"

#include "fileutil.h"
#include "log.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

int system_ret(const char *command) {
    if (command == nullptr) {
        return system_ret_no_command;
    }
    const int status = std::system(command);
    if (status == -1) {
        log_error("Could not execute: %s", command);
        return system_ret_no_shell;
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        log_notice("Command terminated by signal %d: %s", WTERMSIG(status), command);
        return system_ret_signal;
    }
    return system_ret_stopped;
}

int system_ret_within(const char *command, std::chrono::seconds limit) {
    const pid_t pid = ::fork();
    if (pid == -1) {
        log_error("Could not execute: %s", command);
        return system_ret_no_shell;
    }
    if (pid == 0) {
        ::setpgid(0, 0); // of its own, so that all of it can be killed
        ::execl("/bin/sh", "sh", "-c", command, nullptr);
        ::_exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + limit;
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(pid, &status, WNOHANG)) == 0) {
        if (std::chrono::steady_clock::now() >= end) {
            ::kill(-pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            return system_ret_stopped;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return ended == pid && WIFEXITED(status) ? WEXITSTATUS(status) : system_ret_signal;
}

command_pipe::command_pipe(const char *command) : pipe_(::popen(command, "re")) {
    if (pipe_ == nullptr) {
        log_fatal("Could not popen '%s'", command);
    }
}

bool command_pipe::next_line(std::size_t max_characters, std::string &line) {
    return read_line(pipe_, max_characters, line);
}

int command_pipe::close() noexcept {
    return pipe_ == nullptr ? -1 : ::pclose(std::exchange(pipe_, nullptr));
}

bool was_ended_by_signal(int wait_status) {
    constexpr int shell_signal_status =
        128; // the shell's own status for "ended by signal N" is 128 + N
    return WIFSIGNALED(wait_status) ||
           (WIFEXITED(wait_status) && WEXITSTATUS(wait_status) > shell_signal_status);
}

int command_read_lines(const char *command, std::size_t max_characters,
                       const std::function<void(const std::string &)> &take_line) {
    command_pipe pipe(command);
    std::string line;
    while (pipe.next_line(max_characters, line)) {
        take_line(line);
    }
    return pipe.close();
}
