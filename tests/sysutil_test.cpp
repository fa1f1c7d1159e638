#include "log_capture.h"
#include "popen2.h"
#include "sandbox.h"
#include "sysutil.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

std::string read_all(int descriptor) {
    std::string text;
    char piece[256];
    ssize_t size = 0;
    while ((size = ::read(descriptor, piece, sizeof piece)) > 0) {
        text.append(piece, static_cast<std::size_t>(size));
    }
    return text;
}

} // namespace

TEST(Sysutil, DecodesHowACommandEnded) {
    log_capture log;
    EXPECT_EQ(system_ret("exit 3"), 3);
    EXPECT_EQ(system_ret("true"), 0);
    EXPECT_EQ(system_ret(nullptr), system_ret_no_command);
    EXPECT_EQ(system_ret("missing-program 2> /dev/null"), 127);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(system_ret("kill -9 $$"), system_ret_signal);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"NOTICE Command terminated by signal 9: kill -9 $$"});
}

TEST(Sysutil, ReadsACommandToItsEndAndKnowsItsStatus) {
    std::vector<std::string> lines;
    const auto take = [&lines](const std::string &line) { lines.push_back(line); };
    int status = command_read_lines("printf 'ab\\ncdef'; exit 4", 3, take);
    EXPECT_EQ(lines, (std::vector<std::string>{"ab\n", "cde", "f"}));
    EXPECT_EQ(WEXITSTATUS(status), 4);

    status = command_read_lines("kill -9 $$", 3, take);
    EXPECT_TRUE(WIFSIGNALED(status));

    // A reader that leaves early ends an endless writer.
    command_pipe endless("exec yes");
    std::string line;
    EXPECT_TRUE(endless.next_line(10, line));
    status = endless.close();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << status;
}

TEST(Sysutil, CommandsInheritNoDescriptorOfTheDaemon) {
    const unique_fd request(::open("/etc/passwd", O_RDONLY | O_CLOEXEC));
    std::string listing;
    command_read_lines("ls -l /proc/self/fd", 1000,
                       [&listing](const std::string &line) { listing += line; });
    EXPECT_EQ(listing.find("/etc/passwd"), std::string::npos) << listing;
}

TEST(Popen2, TalksBothWaysAndLeavesNothingBehind) {
    const int descriptors = open_descriptors();
    const char *const argv[] = {"cat", nullptr};
    auto child = popen2(argv);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(::write(child->stdin.get(), "hello\n", 6), 6);
    (void)child->stdin.close();
    EXPECT_EQ(read_all(child->stdout.get()), "hello\n");
    log_capture log;
    pclose2(std::move(child));
    pclose2(nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(zombie_children(), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Popen2, AMissingProgramIsAChildThatEndsWithZero) {
    const char *const argv[] = {"no-such-program", nullptr};
    auto child = popen2(argv);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(read_all(child->stdout.get()), "");
    int status = -1;
    EXPECT_EQ(::waitpid(child->pid, &status, 0), child->pid);
    EXPECT_EQ(status, 0);
    popen2_free(std::move(child));
}

TEST(Popen2, ChildThatIgnoresTermIsKilledInTheEnd) {
    const char *const argv[] = {
        "sh", "-c", "trap 'echo asked' TERM; echo ready; while :; do sleep 0.1; done", nullptr};
    auto child = popen2(argv);
    char ready[6];
    ASSERT_EQ(::read(child->stdout.get(), ready, sizeof ready), 6);
    popen2_term(*child);
    EXPECT_EQ(read_all(child->stdout.get()), "asked\n"); // and ends: nobody holds the pipe
    EXPECT_EQ(::kill(child->pid, 0), -1);
    popen2_free(std::move(child));
    EXPECT_EQ(zombie_children(), 0);
}

TEST(Popen2, AChildReapedElsewhereIsReported) {
    const char *const argv[] = {"sleep", "60", nullptr};
    auto child = popen2(argv);
    const pid_t pid = child->pid;
    // Reaped before its SIGTERM would find it: as a stray waitpid(-1) in the process would do.
    ::signal(SIGCHLD, SIG_IGN);
    log_capture log;
    pclose2(std::move(child));
    ::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(log.texts(), std::vector<std::string>{
                               "ERR (popen2:#, errno: No child processes) Could not wait for pid " +
                               std::to_string(pid) + ", waitpid returned -1."});
}
