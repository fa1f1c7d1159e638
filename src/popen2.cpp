#include "popen2.h"

#include "log.h"
#include "sysutil.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

struct pipe_ends {
    unique_fd read;
    unique_fd write;
};

bool make_pipe(pipe_ends &ends) {
    int descriptors[2];
    if (::pipe2(descriptors, O_CLOEXEC) != 0) {
        return false;
    }
    ends.read = unique_fd(descriptors[0]);
    ends.write = unique_fd(descriptors[1]);
    return true;
}

// Between fork and exec of a process with threads: async-signal-safe calls only.
[[noreturn]] void run_child(const char *const argv[], int input, int output) {
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execvp(argv[0], const_cast<char *const *>(argv)); // the C prototype lacks the const
    ::_exit(0);
}

void close_end(unique_fd &end, const char *name, pid_t pid) {
    if (end.close() != 0) {
        log_error("Could not close %s filedescriptor for process %d", name, pid);
    }
}

} // namespace

std::unique_ptr<popen2_file> popen2(const char *const argv[]) {
    pipe_ends to_child;
    pipe_ends from_child;
    if (!make_pipe(to_child) || !make_pipe(from_child)) {
        return nullptr;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        return nullptr;
    }
    if (pid == 0) {
        run_child(argv, to_child.read.get(), from_child.write.get());
    }
    auto file = std::make_unique<popen2_file>();
    file->pid = pid;
    file->stdin = std::move(to_child.write);
    file->stdout = std::move(from_child.read);
    return file;
}

void popen2_term(popen2_file &file) {
    if (::kill(file.pid, SIGTERM) != 0) {
        return;
    }
    pid_t result = wait_for_child(file.pid, nullptr, popen2_grace);
    if (result == 0) {
        ::kill(file.pid, SIGKILL);
        result = wait_for_child(file.pid, nullptr, popen2_grace);
    }
    if (result != file.pid) {
        log_error("Could not wait for pid %d, waitpid returned %d.", file.pid, result);
    }
}

void pclose2(std::unique_ptr<popen2_file> file) {
    if (file) {
        popen2_term(*file);
        popen2_free(std::move(file));
    }
}

void popen2_free(std::unique_ptr<popen2_file> file) {
    if (file) {
        close_end(file->stdin, "stdin", file->pid);
        close_end(file->stdout, "stdout", file->pid);
    }
}
