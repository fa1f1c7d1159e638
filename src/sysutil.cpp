#include "sysutil.h"

#include "fileutil.h"
#include "log.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr mode_t output_permissions = 0644;

// The descriptors and the session of a child that posix_spawn makes: it does not copy the process,
// so that threads and their locks don't matter.
class spawn_settings {
  public:
    spawn_settings() {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID);
    }
    ~spawn_settings() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }
    spawn_settings(const spawn_settings &) = delete;
    spawn_settings &operator=(const spawn_settings &) = delete;

    void write_into(const char *file) {
        ::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, file,
                                           O_WRONLY | O_CREAT | O_TRUNC, output_permissions);
        keep_standard_ones();
    }
    void write_into(int descriptor) {
        ::posix_spawn_file_actions_adddup2(&actions_, descriptor, STDOUT_FILENO);
        keep_standard_ones();
    }
    void close_all() { ::posix_spawn_file_actions_addclosefrom_np(&actions_, 0); }

    [[nodiscard]] const posix_spawn_file_actions_t *actions() const { return &actions_; }
    [[nodiscard]] const posix_spawnattr_t *attributes() const { return &attributes_; }

  private:
    void keep_standard_ones() {
        ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

// -1 with errno when it could not be started.
pid_t spawn(const char *const argv[], const spawn_settings &settings) {
    pid_t pid = -1;
    errno = ::posix_spawn(&pid, argv[0], settings.actions(), settings.attributes(),
                          const_cast<char *const *>(argv), environ);
    return errno == 0 ? pid : -1;
}

} // namespace

int run_program(const char *const argv[], program_descriptors descriptors, const char *output,
                std::chrono::milliseconds limit) {
    spawn_settings settings;
    if (descriptors == program_descriptors::none) {
        settings.close_all();
    } else {
        settings.write_into(output);
    }
    const pid_t pid = spawn(argv, settings);
    if (pid < 0) {
        return -1;
    }
    int status = -1;
    if (wait_for_child(pid, &status, limit) == 0) {
        ::kill(-pid, SIGKILL);
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        errno = ETIMEDOUT;
    }
    return status;
}

running_command start_command(const char *command) {
    const char *const argv[] = {"/bin/sh", "-c", command, nullptr};
    running_command started;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) == 0) {
        started.output = unique_fd(ends[0]);
        const unique_fd write_end(ends[1]);
        spawn_settings settings;
        settings.write_into(write_end.get());
        started.pid = spawn(argv, settings);
    }
    if (started.pid < 0) {
        log_fatal("Could not popen '%s'", command);
    }
    return started;
}

pid_t wait_for_child(pid_t pid, int *wait_status, std::chrono::milliseconds limit) {
    auto pause = 1ms;
    for (auto waited = 0ms;; waited += pause, pause = std::min(pause * 2, 50ms)) {
        const pid_t result = ::waitpid(pid, wait_status, WNOHANG);
        if (result != 0 || waited >= limit) {
            return result;
        }
        std::this_thread::sleep_for(pause);
    }
}

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

command_pipe::command_pipe(const char *command, std::nothrow_t) : pipe_(::popen(command, "re")) {}

command_pipe::command_pipe(const char *command) : command_pipe(command, std::nothrow) {
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
    // The shell's own status for "ended by signal N" is 128 + N; a tool's may be higher.
    const int signal = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) - 128 : 0;
    return WIFSIGNALED(wait_status) || (signal > 0 && signal <= SIGRTMAX);
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
