#include "log_capture.h"
#include "loop.h"
#include "popen2.h"
#include "process_list.h"
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

    // Without a shell; a command that can't be found is the shell's to tell.
    lines.clear();
    EXPECT_EQ(WEXITSTATUS(command_read_lines("yes ab | head -n 1 | grep -c b", 9, take)), 0);
    EXPECT_EQ(WEXITSTATUS(command_read_lines("seq 3 | missing-program", 9, take)), 127);
    EXPECT_EQ(lines, std::vector<std::string>{"1\n"});
    EXPECT_EQ(zombie_children(), 0);

    // A reader that leaves early ends an endless writer.
    command_pipe endless("exec yes");
    std::string line;
    EXPECT_TRUE(endless.next_line(10, line));
    status = endless.close();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << status;
}

// The tool prints a line and hangs with a child of its own; what was started with "&" goes on.
TEST(Sysutil, AHungToolIsEndedWithItsChildrenAndLeftAloneForAWhile) {
    const std::string note = fresh_folder() + "/child";
    install_tool("dbus-send", "echo \"$2\" >> " + note + ".asked; echo first; sleep 1000 &\n" +
                                  "echo $! > " + note + "; wait\n");
    const auto call = [](const std::string &service) {
        return "dbus-send --reply-timeout=1000 --dest=" + service;
    };
    ASSERT_EQ(system_ret(("sleep 1000 & echo $! > " + note + ".other").c_str()), 0);
    const pid_t background = std::stoi(read_file(note + ".other"));

    log_capture log;
    std::vector<std::string> lines;
    const std::string piped = call("com.zero") + " | cat";
    for (const std::string &command : {piped, call("com.one")}) {
        lines.clear();
        const int status = command_read_lines(
            command.c_str(), 100, [&](const std::string &line) { lines.push_back(line); });
        EXPECT_EQ(lines, std::vector<std::string>{"first\n"});
        EXPECT_TRUE(was_ended_by_signal(status));
        const pid_t child = std::stoi(read_file(note));
        EXPECT_TRUE(wait_until([child] { return ::kill(child, 0) != 0; }));
    }
    EXPECT_EQ(::kill(background, 0), 0);

    // At once, and without a word: the same service. Another one is asked.
    EXPECT_EQ(system_ret(call("com.one").c_str()), system_ret_signal);
    command_pipe left_out(call("com.one").c_str());
    EXPECT_FALSE(left_out.next_line(100, lines.emplace_back()));
    EXPECT_TRUE(left_out.has_hung());
    EXPECT_TRUE(was_ended_by_signal(left_out.close()));
    install_tool("dbus-send", "exit 5");
    EXPECT_EQ(system_ret(call("com.two").c_str()), 5);
    EXPECT_EQ(read_file(note + ".asked"), "--dest=com.zero\n--dest=com.one\n");
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{
                  "NOTICE Command ended at its limit of 4 s: " + piped,
                  "WARNING 'dbus-send --dest=com.zero' does not answer: it is left out for 150 "
                  "seconds.",
                  "NOTICE Command ended at its limit of 4 s: " + call("com.one"),
                  "WARNING 'dbus-send --dest=com.one' does not answer: it is left out for 150 "
                  "seconds."}));
    EXPECT_EQ(zombie_children(), 0);
    ::kill(background, SIGKILL);
}

// Ticks while a request waits: only where a handler allows it, and never one in another.
TEST(Sysutil, TimersRunWhileACommandIsWaitedForWhereThatIsAllowed) {
    static int depth = 0;
    static int deepest = 0;
    static int ticks = 0;
    const unsigned timer = loop_add_ms(
        10,
        [](gpointer) -> gboolean {
            ++ticks;
            deepest = std::max(deepest, ++depth);
            const loop_turns inner;
            (void)system_ret("sleep 0.05");
            --depth;
            return G_SOURCE_CONTINUE;
        },
        nullptr);
    loop_add_ms(
        10,
        [](gpointer) -> gboolean {
            deepest = std::max(deepest, depth + 1);
            return G_SOURCE_CONTINUE;
        },
        nullptr);
    EXPECT_EQ(system_ret("sleep 0.3"), 0);
    EXPECT_EQ(ticks, 0);
    {
        const loop_turns here;
        EXPECT_EQ(command_read_lines("echo a; sleep 0.3; echo b", 10, [](const std::string &) {}),
                  0);
        EXPECT_GT(std::exchange(ticks, 0), 0);
        EXPECT_EQ(system_ret("sleep 0.3"), 0);
        EXPECT_GT(std::exchange(ticks, 0), 0);
    }
    EXPECT_EQ(system_ret("sleep 0.1"), 0);
    EXPECT_EQ(ticks, 0);
    EXPECT_EQ(deepest, 1);
    EXPECT_TRUE(run_until([] { return ticks > 0; })); // and in the main loop
    loop_remove(timer);
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

TEST(ProcessList, FindsTwoTextsInALineAndIsReadOnceWhileRemembered) {
    install_tool("ps", "echo '  12 root /usr/local/packages/Vandrel/collect_m.sh'\n");
    EXPECT_TRUE(ps_grep_and_check_if_included("Vandrel", "collect_m"));
    EXPECT_FALSE(ps_grep_and_check_if_included("Vandrel", "zip"));
    EXPECT_FALSE(ps_grep_and_check_if_included("zip", "collect_m"));
    {
        const process_list_memory once;
        EXPECT_TRUE(ps_grep_and_check_if_included("Vandrel", "collect_m"));
        install_tool("ps", "true\n");
        EXPECT_TRUE(ps_grep_and_check_if_included("Vandrel", "collect_m"));
    }
    EXPECT_FALSE(ps_grep_and_check_if_included("Vandrel", "collect_m"));
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
