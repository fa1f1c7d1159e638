// Log lines through the triggers' matching beside grep over the same lines and rsyslog writing
// them.
//
//     triggers_bench FOLDER [LINES]
//
// Makes a log of that many lines (200,000) in a folder of its own below FOLDER and takes it away
// again. Counted is processor time: the daemon's own for lines that come through the follower's
// pipe, grep's whole, and what rsyslog needs to take the lines from its socket and write them as
// the package has it do. One line in a thousand matches. At the end ten rules see 50 lines a
// second.
#include "line_parser.h"
#include "support/figures.h"
#include "syslog_triggers.h"

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::atomic<int> taken = 0;

void take_line(const char *line) {
    traverse_and_trigger_if_so(line);
    ++taken;
}

[[noreturn]] void fail(const char *what) {
    std::cerr << what << "\n";
    std::exit(1);
}

double seconds(const rusage &usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double used(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return seconds(usage);
}

template <typename Condition> void wait_for(Condition condition, const char *what) {
    for (int i = 0; !condition(); ++i) {
        if (i == 60'000) {
            fail(what);
        }
        std::this_thread::sleep_for(1ms);
    }
}

std::string message(int i) {
    return "program[" + std::to_string(i % 500) + "]: " +
           (i % 1000 == 0 ? "sensor 0007 does not answer" : "connection of 192.168.0.17 accepted") +
           ", attempt " + std::to_string(i) + ", status 200, queue 3 of 64";
}

std::string key(int rule) {
    std::string number = std::to_string(rule);
    number.insert(0, 4 - number.size(), '0');
    return "sensor " + number + " does";
}

std::uint64_t matches() {
    std::uint64_t sum = 0;
    for (const auto *rule = get_systemlog_list(); rule != nullptr; rule = rule->next.get()) {
        sum += rule->triggered_count;
    }
    return sum;
}

pid_t start(const char *const *command) {
    pid_t pid = 0;
    if (posix_spawnp(&pid, command[0], nullptr, nullptr, const_cast<char *const *>(command),
                     environ) != 0) {
        fail(command[0]);
    }
    return pid;
}

double finish(pid_t pid) {
    rusage usage{};
    int status = 0;
    wait4(pid, &status, 0, &usage);
    return seconds(usage);
}

double daemon_time(const fs::path &log, int lines) {
    taken = 0;
    const std::string path = log.string();
    const char *const command[] = {"/bin/cat", path.c_str(), nullptr};
    const double before = used(RUSAGE_SELF);
    auto reader = process_create(command, take_line);
    wait_for([lines] { return taken == lines; }, "the daemon does not take the lines");
    const double time = used(RUSAGE_SELF) - before;
    process_stop(reader.get());
    process_wait(reader.get());
    process_free(reader);
    return time;
}

double grep_time(const fs::path &log, const fs::path &keys) {
    const std::string command =
        "exec grep -c -F -f '" + keys.string() + "' '" + log.string() + "' >/dev/null";
    const char *const words[] = {"sh", "-c", command.c_str(), nullptr};
    return finish(start(words));
}

double rsyslog_time(const fs::path &folder, int lines) {
    const fs::path copy = folder / "copy";
    const std::string socket_path = (folder / "socket").string();
    fs::remove(copy);
    fs::remove(socket_path);
    std::ofstream(folder / "rsyslog.conf")
        << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
           "input(type=\"imuxsock\" Socket=\""
        << socket_path << "\" RateLimit.Interval=\"0\")\n"
        << "$template vandrel_line,\"%timegenerated:::date-rfc3339% %hostname% [ "
           "%syslogseverity-text:::uppercase% ] "
           "%syslogtag%%msg:::sp-if-no-1st-sp%%msg:::drop-last-lf%\\n\"\n"
        << "*.* :omfile:" << copy.string() << ";vandrel_line\n";
    const std::string configuration = (folder / "rsyslog.conf").string();
    const std::string pid_file = (folder / "rsyslog.pid").string();
    const char *const command[] = {"rsyslogd",       "-n",   "-f", configuration.c_str(), "-i",
                                   pid_file.c_str(), nullptr};
    const pid_t pid = start(command);
    const int sender = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
    wait_for(
        [&] {
            return ::connect(sender, reinterpret_cast<const sockaddr *>(&address),
                             sizeof address) == 0;
        },
        "rsyslog does not start");
    std::uintmax_t size = 0;
    for (int i = 0; i < lines; ++i) {
        const std::string text = "<12>" + message(i);
        size += text.size();
        if (::send(sender, text.data(), text.size(), 0) < 0) {
            fail("rsyslog does not take the lines");
        }
    }
    ::close(sender);
    // The written lines are longer: they have a time and a host's name.
    wait_for([&] { return fs::exists(copy) && fs::file_size(copy) >= size; },
             "rsyslog does not write the lines");
    ::kill(pid, SIGTERM);
    return finish(pid);
}

void steady(const fs::path &folder) {
    constexpr int lines = 500;
    const std::string path = (folder / "followed").string();
    std::ofstream log(path);
    const char *const command[] = {"/usr/bin/tail", "-n0", "-F", path.c_str(), nullptr};
    taken = 0;
    const double children_before = used(RUSAGE_CHILDREN);
    auto reader = process_create(command, take_line);
    std::this_thread::sleep_for(500ms);
    const double before = used(RUSAGE_SELF);
    const auto start_time = std::chrono::steady_clock::now();
    for (int i = 0; i < lines; ++i) {
        log << message(i) << std::endl;
        std::this_thread::sleep_until(start_time + (i + 1) * 20ms);
    }
    std::this_thread::sleep_for(500ms); // the last lines
    const double own = used(RUSAGE_SELF) - before;
    process_stop(reader.get());
    process_wait(reader.get());
    process_free(reader);
    const double follower = used(RUSAGE_CHILDREN) - children_before;
    if (taken != lines) {
        fail("a line is missing");
    }
    figure("50 log lines a second, 10 rules, the writing included", own * 10, "%", "tail",
           follower * 10);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::cerr << "usage: triggers_bench FOLDER [LINES]\n";
        return 2;
    }
    const int lines = argc > 2 ? std::atoi(argv[2]) : 200'000;
    const fs::path folder = fs::path(argv[1]) / "triggers_bench";
    fs::create_directories(folder);
    {
        std::ofstream log(folder / "log");
        for (int i = 0; i < lines; ++i) {
            log << "2026-11-21T08:41:28.174501+00:00 camera [ WARNING ] " << message(i) << "\n";
        }
    }
    const double rsyslog = rsyslog_time(folder, lines);
    int rules = 0;
    for (const int wanted : {1, 10, 100, 1000}) {
        std::ofstream keys(folder / "keys", std::ios::app);
        for (; rules < wanted; ++rules) {
            keys << key(rules) << "\n";
            create_a_systemlog_trigger_rule({key(rules), key(rules)}, false);
        }
        keys.close();
        if (wanted == 10) {
            steady(folder);
        }
        const std::uint64_t before = matches();
        const double own = daemon_time(folder / "log", lines);
        if (matches() - before !=
            (wanted > 7 ? (static_cast<std::uint64_t>(lines) + 999) / 1000 : 0)) {
            fail("a line's match is missing");
        }
        const double grep = grep_time(folder / "log", folder / "keys");
        const std::string what = "a log line, rules: " + std::to_string(wanted);
        figure(what, own / lines * 1e6, "us", "rsyslog", rsyslog / lines * 1e6, {.ratio = 1});
        figure(what, own / lines * 1e6, "us", "grep", grep / lines * 1e6);
    }
    fs::remove_all(folder);
    return 0;
}
