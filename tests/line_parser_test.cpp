#include "line_parser.h"
#include "log_capture.h"
#include "sandbox.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

std::mutex lines_mutex;
std::vector<std::string> lines; // guarded by lines_mutex

void take_line(const char *line) {
    const std::lock_guard lock(lines_mutex);
    lines.emplace_back(line);
}

std::vector<std::string> taken_lines() {
    const std::lock_guard lock(lines_mutex);
    return lines;
}

std::unique_ptr<thread_info> read_output_of(const std::string &script) {
    {
        const std::lock_guard lock(lines_mutex);
        lines.clear();
    }
    const char *const argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
    return process_create(argv, take_line);
}

void end(std::unique_ptr<thread_info> info) {
    process_stop(info.get());
    process_wait(info.get());
    EXPECT_FALSE(info->running);
    process_free(info);
}

// The thread that has come since the tasks were listed; "" when there is none.
std::string thread_since(const std::vector<std::string> &tasks) {
    for (const std::string &task : list_folder("/proc/self/task")) {
        if (!std::binary_search(tasks.begin(), tasks.end(), task)) {
            return task;
        }
    }
    return "";
}

} // namespace

TEST(LineParser, DeliversWholeLinesHoweverTheyArrive) {
    const std::string longest(4094, 'x'); // with its newline exactly what the buffer holds
    const struct {
        const char *what;
        std::string script;
        std::vector<std::string> expected;
    } cases[] = {
        {"pieces",
         "echo a; printf b; sleep 0.1; echo c; printf '\\n'; echo end",
         {"a", "bc", "", "end"}},
        {"no line end", "echo a; printf left; exec 1>&-; exec sleep 60", {"a"}},
        {"the longest", "head -c 4094 /dev/zero | tr '\\0' x; echo; echo end", {longest, "end"}},
        {"one too long", "head -c 4095 /dev/zero | tr '\\0' x; echo; echo end", {"end"}},
        {"far too long", "head -c 100000 /dev/zero | tr '\\0' x; echo cut; echo end", {"end"}},
        {"long after short",
         "echo a; head -c 4090 /dev/zero | tr '\\0' x; sleep 0.1; echo yyyyy; echo end",
         {"a", "end"}},
        {"a NUL byte", "printf 'a\\000b\\nend\\n'", {"a", "end"}},
    };
    for (const auto &c : cases) {
        auto info = read_output_of(c.script);
        ASSERT_NE(info, nullptr) << c.what;
        EXPECT_TRUE(wait_until([&c] { return taken_lines().size() >= c.expected.size(); }))
            << c.what;
        end(std::move(info));
        EXPECT_EQ(taken_lines(), c.expected) << c.what;
    }
}

TEST(LineParser, ManyLinesAtFullSpeedAllArriveInOrder) {
    auto info = read_output_of("seq 1 100000");
    ASSERT_TRUE(wait_until([] { return taken_lines().size() == 100000; }));
    end(std::move(info));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        ASSERT_EQ(lines[i], std::to_string(i + 1));
    }
}

TEST(LineParser, RefusesWhatItCanNotStart) {
    log_capture log;
    std::vector<const char *> many(101, "/bin/sh");
    many.push_back(nullptr);
    for (const auto &argv : std::vector<std::vector<const char *>>{
             {"/missing", nullptr}, {"sh", nullptr} /* PATH is not searched */, {nullptr}, many}) {
        EXPECT_EQ(process_create(argv.data(), take_line), nullptr);
    }
    const std::string not_found = "INFO Could not start process: Application not found.";
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{
                  not_found, not_found, not_found,
                  "ERR (line_parser:#, errno: None) Either there are too many arguments for the "
                  "given command, or the ending NULL pointer is missing."}));

    many[100] = nullptr;
    auto info = process_create(many.data(), take_line);
    ASSERT_NE(info, nullptr);
    end(std::move(info));
}

TEST(LineParser, AnEndedChildCostsNothingUntilTheStop) {
    const std::vector<std::string> tasks = list_folder("/proc/self/task");
    auto info = read_output_of("echo last");
    ASSERT_TRUE(wait_until([] { return !taken_lines().empty(); }));
    const std::string reader = thread_since(tasks);
    ASSERT_NE(reader, "");
    ASSERT_TRUE(wait_until([] { return zombie_children() == 1; }));
    // The end of the output wakes the reader once more; from then on it sleeps.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::string time_used = "/proc/self/task/" + reader + "/schedstat";
    const std::string before = read_file(time_used);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(read_file(time_used), before);
    EXPECT_TRUE(info->running);
    EXPECT_TRUE(info->at_end);
    end(std::move(info));
    EXPECT_EQ(zombie_children(), 0);
}

TEST(LineParser, TwoHundredStartsAndStopsLeaveNothing) {
    auto deaf = read_output_of("trap '' TERM; echo ready; while :; do sleep 0.1; done");
    ASSERT_TRUE(wait_until([] { return !taken_lines().empty(); }));
    end(std::move(deaf));
    const int descriptors = open_descriptors();
    const int threads = thread_count();
    for (int i = 0; i < 200; ++i) {
        // Some are stopped before their child has run at all, some while it prints.
        end(read_output_of(i % 2 == 0 ? "exec sleep 60" : "exec yes"));
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(wait_until([threads] { return thread_count() == threads; }));
    EXPECT_EQ(zombie_children(), 0);
}
