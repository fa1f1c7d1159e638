#include "log_capture.h"
#include "loop.h"
#include "sandbox.h"
#include "vdrl_inotify.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

std::vector<std::string> events;
std::unique_ptr<vdrl_inotify_watcher> watch;

std::string mask_name(std::uint32_t mask) {
    return (mask & IN_CREATE) != 0        ? "create "
           : (mask & IN_IGNORED) != 0     ? "ignored "
           : (mask & IN_DELETE_SELF) != 0 ? "gone "
                                          : "other ";
}

void note_event(const inotify_event &event, const char *name, vdrl_inotify_watcher &watcher) {
    EXPECT_EQ(&watcher, watch.get());
    events.push_back(mask_name(event.mask) + name);
}

void end_watch_at_first_event(const inotify_event &, const char *name, vdrl_inotify_watcher &) {
    events.emplace_back(name);
    vdrl_inotify_destroy(watch);
}

void touch(const std::string &path) {
    write_file(path, "");
}

} // namespace

TEST(VdrlInotify, HandsOverEveryEventInOrder) {
    const std::string folder = fresh_folder();
    // The main context and the daemon's own one have descriptors of their own.
    loop_add_idle([](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr);
    run_until([] { return true; });
    const int descriptors = open_descriptors();
    events.clear();
    watch = vdrl_inotify_create(folder.c_str(), IN_CREATE | IN_DELETE_SELF, note_event);
    ASSERT_NE(watch, nullptr);
    EXPECT_EQ(watch->name, folder);
    // Names of all lengths, more at once than the channel's buffer holds.
    std::vector<std::string> expected;
    for (int i = 1; i <= 255; ++i) {
        const std::string name = std::string(static_cast<std::size_t>(i), 'n');
        touch(folder + "/" + name);
        expected.push_back("create " + name);
    }
    ASSERT_TRUE(run_until([&expected] { return events.size() >= expected.size(); }));
    EXPECT_EQ(events, expected);

    // The watched folder goes: the kernel takes the watch back, and nothing is left to end.
    events.clear();
    fs::remove_all(folder);
    ASSERT_TRUE(run_until([] { return events.size() == 2; }));
    EXPECT_EQ(events, (std::vector<std::string>{"gone ", "ignored "}));
    log_capture log;
    vdrl_inotify_destroy(watch);
    vdrl_inotify_destroy(watch);
    EXPECT_EQ(watch, nullptr);
    EXPECT_TRUE(log.texts().empty());
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(VdrlInotify, ACallbackMayEndItsOwnWatch) {
    const std::string folder = fresh_folder();
    events.clear();
    log_capture log;
    watch = vdrl_inotify_create(folder.c_str(), IN_CREATE, end_watch_at_first_event);
    touch(folder + "/first");
    touch(folder + "/second");
    ASSERT_TRUE(run_until([] { return watch == nullptr; }));
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_EQ(events, std::vector<std::string>{"first"});
    EXPECT_TRUE(log.lines().empty());
}

TEST(VdrlInotify, AMissingPathIsReported) {
    const int descriptors = open_descriptors();
    log_capture log;
    EXPECT_EQ(vdrl_inotify_create("/missing", IN_CREATE, note_event), nullptr);
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{"ERR (vdrl_inotify:#, errno: No such file or directory) "
                                        "inotify_add_watch error.",
                                        "ERR (vdrl_inotify:#, errno: None) Failed to add watch for "
                                        "'/missing'"}));
    EXPECT_EQ(open_descriptors(), descriptors);
}
