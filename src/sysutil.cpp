#include "sysutil.h"

#include "command_limits.h"
#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "shell_word.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t output_piece = 16384;
constexpr auto look_again = 1000ms; // period of checks for a SIGTERM, which shortens waits
constexpr auto kill_grace = 500ms; // a process that survives SIGKILL so long is stuck in the kernel

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

    // An input of -1 is an empty one.
    void use_pipes(int input, int output) {
        ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        if (input >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO);
        } else {
            read_nothing();
        }
        ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
    // Instead of a session of its own a process group: an existing one, or for 0 a new one.
    void use_group(pid_t group) {
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP);
        ::posix_spawnattr_setpgroup(&attributes_, group);
    }
    void inherit_standard_ones(int output) {
        if (output >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        }
        ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
    void read_nothing() {
        ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    void close_all() { ::posix_spawn_file_actions_addclosefrom_np(&actions_, 0); }

    [[nodiscard]] const posix_spawn_file_actions_t *actions() const { return &actions_; }
    [[nodiscard]] const posix_spawnattr_t *attributes() const { return &attributes_; }

  private:
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

// Searches PATH as a shell does.
pid_t spawn_words(const command_words &words, const spawn_settings &settings) {
    std::vector<const char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words) {
        arguments.push_back(word.c_str());
    }
    arguments.push_back(nullptr);
    pid_t pid = -1;
    errno = ::posix_spawnp(&pid, arguments[0], settings.actions(), settings.attributes(),
                           const_cast<char *const *>(arguments.data()), environ);
    return errno == 0 ? pid : -1;
}

// Without a shell where possible; for a command not found the shell runs, and reports it.
pid_t spawn_command(const char *command, const spawn_settings &settings) {
    if (const auto words = words_without_shell(command)) {
        const pid_t pid = spawn_words(*words, settings);
        if (pid >= 0) {
            return pid;
        }
    }
    const char *const argv[] = {"/bin/sh", "-c", command, nullptr};
    return spawn(argv, settings);
}

// For differences only; a clock that nothing sets or scales.
std::chrono::milliseconds real_time() {
    static const long per_second = ::sysconf(_SC_CLK_TCK);
    struct tms unused {};
    return std::chrono::milliseconds(static_cast<long long>(::times(&unused)) * 1000 / per_second);
}

// What a SIGTERM leaves for a wait (loop_time_left): at least two seconds for the whole of it.
std::chrono::milliseconds time_left(std::chrono::milliseconds waited) {
    constexpr auto at_least = 2s;
    return std::max<std::chrono::milliseconds>(loop_time_left(), at_least - waited);
}

// Children stuck in the kernel despite SIGKILL, reaped when they end.
std::mutex undying_mutex;
std::vector<pid_t> undying;

void reap_undying() {
    const std::lock_guard lock(undying_mutex);
    std::erase_if(undying, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
}

void leave_undying(pid_t pid) {
    std::size_t count = 0;
    {
        const std::lock_guard lock(undying_mutex);
        undying.push_back(pid);
        count = undying.size();
    }
    log_warning("Process %d can not be ended: it hangs in the kernel, as %zu in all.",
                static_cast<int>(pid), count);
}

// Kills a child with its whole session and returns its status.
int kill_session(pid_t pid) {
    ::kill(-pid, SIGKILL);
    int status = SIGKILL; // as of one ended by that signal
    if (wait_for_child(pid, &status, kill_grace) == 0) {
        leave_undying(pid);
    }
    return status;
}

void log_limit(const char *command, std::chrono::milliseconds limit) {
    errno = 0;
    log_notice("Command ended at its limit of %d s: %s", static_cast<int>(limit.count() / 1000),
               command);
}

void log_signal(const char *command, int status) {
    if (WIFSIGNALED(status)) {
        log_notice("Command terminated by signal %d: %s", WTERMSIG(status), command);
    }
}

void reaped(GPid, gint, gpointer) noexcept {}

// "/usr/local/packages/Vandrel/power.sh FOLDER &": starts it without a shell. False, with nothing
// started, when the command needs one.
bool start_and_forget(std::string_view command) {
    constexpr std::string_view ending = " &";
    const auto words = command.ends_with(ending)
                           ? words_without_shell(command.substr(0, command.size() - ending.size()))
                           : std::nullopt;
    spawn_settings settings;
    settings.inherit_standard_ones(-1);
    settings.read_nothing();
    const pid_t pid = words ? spawn_words(*words, settings) : -1;
    if (pid >= 0) {
        (void)loop_add_child(pid, reaped, nullptr);
    }
    errno = 0;
    return pid >= 0;
}

struct pipe_ends {
    unique_fd read;
    unique_fd write;
};

pipe_ends make_pipe() {
    int ends[2];
    return ::pipe2(ends, O_CLOEXEC) == 0 ? pipe_ends{unique_fd(ends[0]), unique_fd(ends[1])}
                                         : pipe_ends{};
}

running_command start_if_possible(const char *command) {
    reap_undying();
    running_command started;
    pipe_ends output = make_pipe();
    if (output.read) {
        spawn_settings settings;
        settings.use_pipes(-1, output.write.get());
        started.pid = spawn_command(command, settings);
        started.output = std::move(output.read);
    }
    return started;
}

// Ends what is left of a pipeline besides its last command.
void end_feeding(running_command &command) {
    for (const pid_t pid : std::exchange(command.feeding, {})) {
        if (wait_for_child(pid, nullptr, kill_grace) == 0) {
            leave_undying(pid);
        }
    }
}

// The last command first, so that nothing has run when another can't be found; their process group
// is that one's. Nothing when a shell is needed.
running_command start_pipeline(const char *command) {
    const auto parts = pipeline_without_shell(command);
    if (!parts) {
        return {};
    }
    reap_undying();
    pipe_ends output = make_pipe();
    running_command started;
    started.output = std::move(output.read);
    for (auto part = parts->rbegin(); part != parts->rend(); ++part) {
        const bool is_first = std::next(part) == parts->rend();
        pipe_ends input = is_first ? pipe_ends{} : make_pipe();
        spawn_settings settings;
        settings.use_group(std::max(started.pid, 0));
        settings.use_pipes(input.read.get(), output.write.get());
        const bool has_pipes = output.write && (is_first || input.read);
        const pid_t pid = has_pipes ? spawn_words(*part, settings) : -1;
        if (pid < 0) {
            if (started.pid >= 0) {
                (void)kill_session(started.pid);
                end_feeding(started);
            }
            return {};
        }
        if (started.pid < 0) {
            started.pid = pid;
        } else {
            started.feeding.push_back(pid);
        }
        output.write = std::move(input.write);
    }
    return started;
}

} // namespace

int run_program(const char *const argv[], std::chrono::milliseconds limit) {
    reap_undying();
    spawn_settings settings;
    settings.close_all();
    const pid_t pid = spawn(argv, settings);
    if (pid < 0) {
        return -1;
    }
    int status = -1;
    if (wait_for_child(pid, &status, limit) == 0) {
        status = kill_session(pid);
        log_limit(argv[0], limit);
        errno = ETIMEDOUT;
    }
    return status;
}

running_command start_command(const char *command) {
    running_command started = start_if_possible(command);
    if (started.pid < 0) {
        log_fatal("Could not popen '%s'", command);
    }
    return started;
}

pid_t wait_for_child(pid_t pid, int *wait_status, std::chrono::milliseconds limit) {
    pid_t result = ::waitpid(pid, wait_status, WNOHANG);
    if (result != 0 || limit <= 0ms) {
        return result;
    }
    // Kernels before 5.3 have no pidfd: poll.
    const unique_fd end(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    errno = 0;
    const auto begin = real_time();
    for (std::chrono::milliseconds pause = end ? look_again : 1ms;;) {
        const auto waited = real_time() - begin;
        const auto left = std::min(limit - waited, time_left(waited));
        loop_wait(end.get(), G_IO_IN, std::clamp(left, 1ms, pause));
        result = ::waitpid(pid, wait_status, WNOHANG);
        if (result != 0 || left <= 0ms) {
            errno = result < 0 ? errno : 0;
            return result;
        }
        pause = std::min(pause * 2, end ? look_again : 50ms);
    }
}

command_beside::command_beside(const char *command, int output)
    : command_(command), begin_(real_time()) {
    reap_undying();
    if (is_left_out(command_)) {
        status_ = SIGKILL; // as of one ended by that signal
        return;
    }
    spawn_settings settings;
    settings.inherit_standard_ones(output);
    pid_ = spawn_command(command, settings);
    failure_ = pid_ < 0 ? errno : 0;
}

void command_beside::finish(int status, bool was_ended) {
    pid_ = -1;
    status_ = status;
    note_duration(command_, real_time() - begin_, was_ended);
}

std::optional<int> command_beside::wait(std::chrono::milliseconds patience) {
    if (pid_ >= 0) {
        const auto limit = limit_of(command_).limit;
        const auto left = std::max<std::chrono::milliseconds>(limit - (real_time() - begin_), 0ms);
        int status = -1;
        if (wait_for_child(pid_, &status, std::min(patience, left)) != 0) {
            log_signal(command_.c_str(), status);
            finish(status, false);
        } else if (real_time() - begin_ >= limit) {
            log_limit(command_.c_str(), limit);
            finish(kill_session(pid_), true);
        } else {
            return std::nullopt;
        }
    }
    errno = failure_;
    return status_;
}

int command_beside::end() {
    if (pid_ >= 0) {
        finish(kill_session(pid_), false);
    }
    errno = failure_;
    return status_;
}

int system_ret(const char *command, int output) {
    if (command == nullptr) {
        return system_ret_no_command;
    }
    reap_undying();
    if (is_left_out(command)) {
        return system_ret_signal;
    }
    if (output < 0 && start_and_forget(command)) {
        return 0;
    }
    spawn_settings settings;
    settings.inherit_standard_ones(output);
    const auto begin = real_time();
    const pid_t pid = spawn_command(command, settings);
    if (pid < 0) {
        log_error("Could not execute: %s", command);
        return system_ret_no_shell;
    }
    const std::chrono::milliseconds limit = limit_of(command).limit;
    int status = 0;
    const bool has_ended = wait_for_child(pid, &status, limit) != 0;
    if (!has_ended) {
        status = kill_session(pid);
        log_limit(command, limit);
    }
    note_duration(command, real_time() - begin, !has_ended);
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        if (has_ended) {
            log_signal(command, status);
        }
        return system_ret_signal;
    }
    return system_ret_stopped;
}

pid_t start_in_background(const char *command) {
    spawn_settings settings;
    settings.inherit_standard_ones(-1);
    const pid_t group = spawn_command(command, settings);
    if (group < 0) {
        log_error("Could not execute: %s", command);
        return -1;
    }
    int status = 0;
    if (wait_for_child(group, &status, limit_of(command).limit) == 0) {
        (void)kill_session(group);
    }
    return group;
}

// "2678 (zip) S 1 2677 2677 0 -1 4194304 391 0 0 0 15 3 ...": behind the name state, parent, group;
// 9 fields later user and system time.
std::optional<unsigned long long> group_cpu_ticks(pid_t group) {
    const unique_folder processes(::opendir("/proc"));
    std::optional<unsigned long long> ticks;
    while (const dirent *entry = processes ? ::readdir(processes.get()) : nullptr) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') {
            continue;
        }
        const unique_file file =
            file_open((std::string("/proc/") + entry->d_name + "/stat").c_str(), "r");
        std::string line;
        int of_group = 0;
        unsigned long user = 0, system = 0;
        if (file && read_line(file.get(), 1000, line) &&
            std::sscanf(line.c_str() + std::min(line.rfind(')'), line.size()),
                        ") %*c %*d %d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &of_group, &user,
                        &system) == 3 &&
            of_group == group) {
            ticks = ticks.value_or(0) + user + system;
        }
    }
    errno = 0;
    return ticks;
}

command_pipe::command_pipe(const char *command, std::nothrow_t) : command_(command) {
    has_hung_ = is_left_out(command_);
    if (!has_hung_) {
        left_ = limit_of(command_).limit;
        is_limited_ = left_ > 0ms;
        child_ = start_pipeline(command);
        if (child_.pid < 0) {
            child_ = start_if_possible(command);
        }
        if (child_.output) {
            ::fcntl(child_.output.get(), F_SETFL, O_NONBLOCK);
        }
    }
}

command_pipe::command_pipe(const char *command) : command_pipe(command, std::nothrow) {
    if (!*this) {
        log_fatal("Could not popen '%s'", command);
    }
}

// Reads more output. False at its end, and at the limit.
bool command_pipe::fill() {
    buffer_.erase(0, std::exchange(given_, 0));
    while (child_.output) {
        const std::size_t size = buffer_.size();
        buffer_.resize(size + output_piece);
        const int before = errno;
        const ssize_t count =
            TEMP_FAILURE_RETRY(::read(child_.output.get(), buffer_.data() + size, output_piece));
        const int failure = count < 0 ? std::exchange(errno, before) : 0;
        buffer_.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count > 0) {
            return true;
        }
        if (failure != EAGAIN) {
            (void)child_.output.close(); // its end
        } else if (is_limited_ && left_ <= waited_) {
            has_hung_ = true;
            (void)child_.output.close();
        } else {
            const auto begin = real_time();
            loop_wait(child_.output.get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                      is_limited_ ? std::min(left_ - waited_, look_again) : 1h);
            waited_ += real_time() - begin;
            left_ = is_limited_ ? std::min(left_, waited_ + time_left(waited_)) : left_;
            errno = before;
        }
    }
    return false;
}

bool command_pipe::next_line(std::size_t max_characters, std::string &line) {
    for (;;) {
        const auto end = buffer_.find('\n', given_);
        const std::size_t size =
            end == std::string::npos ? buffer_.size() - given_ : end + 1 - given_;
        if (end != std::string::npos || size >= max_characters || !fill()) {
            const std::size_t rest = buffer_.size() - given_;
            line.assign(buffer_, given_, std::min({size, rest, max_characters}));
            given_ += line.size();
            const bool is_one = !line.empty();
            line.resize(std::min(line.size(), line.find('\0'))); // as with fgets
            return is_one;
        }
    }
}

std::string command_pipe::next_piece() {
    if (given_ == buffer_.size()) {
        (void)fill();
    }
    given_ = 0;
    return std::exchange(buffer_, {});
}

int command_pipe::close() noexcept {
    if (child_.pid < 0) {
        return std::exchange(command_, {}).empty() ? -1 : has_hung_ ? SIGKILL : -1;
    }
    (void)child_.output.close();
    const pid_t pid = std::exchange(child_.pid, -1);
    int status = -1;
    const auto begin = real_time();
    if (!has_hung_) {
        const auto limit = is_limited_ ? std::max(left_ - waited_, kill_grace) : 24h * 365;
        has_hung_ = wait_for_child(pid, &status, limit) == 0;
        while (!has_hung_ && !child_.feeding.empty()) {
            has_hung_ =
                wait_for_child(child_.feeding.back(), nullptr, limit - (real_time() - begin)) == 0;
            if (!has_hung_) {
                child_.feeding.pop_back();
            }
        }
        waited_ += real_time() - begin;
    }
    if (has_hung_) {
        status = kill_session(pid);
        end_feeding(child_);
        log_limit(command_.c_str(), left_);
    }
    note_duration(command_, waited_, has_hung_);
    command_.clear();
    return status;
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
