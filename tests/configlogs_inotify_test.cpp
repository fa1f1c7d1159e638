#include "configlogs_inotify.h"
#include "log_capture.h"
#include "sandbox.h"
#include "session_globals.h"

#include <ctime>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <regex>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

using texts = std::vector<std::string>;

const std::string added = "INFO Configlog file added";
const std::string changed = "INFO VELA Configuration changed for package door";

std::string configuration(const std::string &package) {
    return "/usr/local/packages/" + package + "/localdata/config.json";
}

class ConfigLogs : public testing::Test {
  protected:
    void SetUp() override {
        session_ = fresh_folder() + "/session";
        fs::create_directories(session_ + "/system_monitoring");
        copies_ = session_ + "/system_monitoring/monitoring_vela_configs";
        _set_secondary_storage_path(session_.substr(0, session_.size() - 7));
        _set_current_activity_folder("session");
        monitory_active = true;
        write_file(configuration("door"), "first");
    }
    void TearDown() override {
        configlogs_inotify_gio_release();
        _set_current_activity_folder(std::nullopt);
        monitory_active = false;
        fs::remove_all("/usr/local/packages/door");
    }

    // The newest copy's text; "" without one.
    [[nodiscard]] std::string newest(const std::string &ending) const {
        std::string text;
        if (fs::is_directory(copies_ + "/door")) {
            for (const std::string &name : list_folder(copies_ + "/door")) {
                if (name.find("-initial") == std::string::npos ? ending.empty() : !ending.empty()) {
                    text = read_file(copies_ + "/door/" + name);
                }
            }
        }
        return text;
    }
    [[nodiscard]] bool comes(const std::string &text, const std::string &ending = "") const {
        return run_until([&] { return newest(ending) == text; });
    }
    // Copies' names have a resolution of a second.
    static void next_second() {
        const std::time_t now = std::time(nullptr);
        EXPECT_TRUE(run_until([now] { return std::time(nullptr) != now; }));
    }

    std::string session_;
    std::string copies_;
};

} // namespace

TEST_F(ConfigLogs, FollowAPackagesConfiguration) {
    log_capture log;
    configlogs_inotify_gio_keep_watching(session_);
    EXPECT_EQ(newest("-initial"), "first");
    next_second();
    write_file(configuration("door"), "second");
    EXPECT_TRUE(comes("second"));
    // Two within a second: the last one is there in the end.
    write_file(configuration("door"), "third");
    write_file(configuration("door"), "fourth");
    EXPECT_TRUE(comes("fourth"));
    for (const char *text : {"replaced", "replaced again"}) {
        next_second();
        write_file("/usr/local/packages/door/localdata/new", text);
        fs::rename("/usr/local/packages/door/localdata/new", configuration("door"));
        EXPECT_TRUE(comes(text, "-initial"));
    }
    next_second();
    write_file(configuration("door"), "in the new file");
    EXPECT_TRUE(comes("in the new file"));
    next_second();
    fs::remove(configuration("door"));
    next_second();
    write_file(configuration("door"), "back");
    configlogs_inotify_gio_keep_watching(session_);
    EXPECT_TRUE(comes("back", "-initial"));

    const texts lines = log.texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), added), 4);
    const auto changes = std::count(lines.begin(), lines.end(), changed);
    EXPECT_GE(changes, 3);
    const std::string text = read_file(copies_ + "/changes.txt");
    EXPECT_TRUE(std::regex_match(
        text, std::regex("(door modified and copied to [0-9]{6}(_[0-9]{2}){3}\\.json\n)+")))
        << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), changes);
    const std::string stamp = "[0-9]{6}(_[0-9]{2}){3}(-initial)?\\.json";
    for (const std::string &name : list_folder(copies_ + "/door")) {
        EXPECT_TRUE(std::regex_match(name, std::regex(stamp))) << name;
    }
}

TEST_F(ConfigLogs, NothingIsCopiedWithoutASession) {
    configlogs_inotify_gio_keep_watching(session_);
    log_capture log;
    next_second();
    monitory_active = false;
    write_file(configuration("door"), "unseen");
    next_second();
    EXPECT_EQ(newest(""), "");
    // What was missed is made up for once.
    monitory_active = true;
    for (int minute = 0; minute < 2; ++minute) {
        configlogs_inotify_gio_keep_watching(session_);
        EXPECT_EQ(newest(""), "unseen");
        EXPECT_EQ(log.texts(), texts{changed});
    }
}

TEST_F(ConfigLogs, WhatIsNoConfiguration) {
    const std::string path = configuration("door");
    const struct {
        const char *what;
        std::function<void()> make;
        bool watched, copied;
    } cases[] = {
        {"missing", [] {}, false, false},
        {"a folder", [&] { fs::create_directory(path); }, false, false},
        {"a link", [&] { fs::create_symlink("/etc/passwd", path); }, false, false},
        {"a pipe", [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }, false, false},
        {"empty", [&] { write_file(path, ""); }, true, true},
        {"50 MB",
         [&] {
             write_file(path, "");
             fs::resize_file(path, 50'000'000);
         },
         true, false},
    };
    for (const auto &c : cases) {
        configlogs_inotify_gio_release();
        fs::remove_all(path);
        fs::remove_all(copies_);
        c.make();
        log_capture log;
        configlogs_inotify_gio_keep_watching(session_);
        const texts lines = log.texts();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), added), c.watched ? 1 : 0) << c.what;
        EXPECT_EQ(lines.size(), (c.watched ? 1U : 0U) + (c.watched && !c.copied ? 1U : 0U))
            << c.what;
        EXPECT_EQ(fs::exists(copies_), c.watched) << c.what;
        EXPECT_EQ(c.watched && !fs::is_empty(copies_ + "/door"), c.copied) << c.what;
    }
    log_capture log;
    configlogs_inotify_gio_setup(session_, "door", 100);
    configlogs_inotify_gio_setup(session_, "door", -1);
    const std::string refused =
        "ERR (configlogs_inotify:#, errno: None) Cannot setup more than 100 "
        "configlog watchers, tried with ";
    EXPECT_EQ(log.texts(), (texts{refused + "100.", refused + "-1."}));
    EXPECT_EQ(get_package_name_from_path("/usr/local/packages/a b/localdata/config.json"), "a b");
    EXPECT_FALSE(get_package_name_from_path("/usr/local/packages/"));
    EXPECT_FALSE(get_package_name_from_path("/etc"));
}
