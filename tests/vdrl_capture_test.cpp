#include "app_state.h"
#include "handle.h"
#include "log_capture.h"
#include "sandbox.h"
#include "vdrl_capture.h"

#include <atomic>
#include <chrono>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {
std::atomic<bool> storage_hangs{false};
std::atomic<bool> storage_is_asked{false};
} // namespace

// In the place of the C library's.
extern "C" int fsync(int file) {
    while (storage_hangs) {
        storage_is_asked = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return static_cast<int>(::syscall(SYS_fsync, file));
}

namespace {

using texts = std::vector<std::string>;

const std::string error = "ERR (vdrl_capture:#, errno: None) ";
const std::string refused = error + "Could not start capturing: ";
const std::string started = "INFO Started image capturing.";

void set_resolution(const std::string &list) {
    write_file("/etc/tvparameter/parameters.conf",
               list.empty() ? "" : "root.Properties.Image.Resolution=" + list + "\n");
    parameters.reset(tv_parameter_new("Vandrel", nullptr));
}

texts images(const std::string &folder) {
    texts names = fs::is_directory(folder) ? list_folder(folder) : texts{};
    std::erase_if(names, [](const std::string &name) { return name.front() == '.'; });
    return names;
}

texts without_times(texts lines) {
    for (std::string &line : lines) {
        line = std::regex_replace(line, std::regex("[0-9]{8}T[0-9]{6}"), "T");
    }
    return lines;
}

bool is_loaded() {
    void *handle = ::dlopen("libcapture.so", RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        ::dlclose(handle);
    }
    return handle != nullptr;
}

} // namespace

TEST(Resolution, TheLargestBeforeAComma) {
    using size = std::optional<std::pair<int, int>>;
    const struct {
        const char *list;
        size expected;
    } cases[] = {
        {"1920x1080,1280x720", {{1920, 1080}}},
        {"640x360,1280x720,1280x960,1024x2000,9999x9999", {{1280, 960}}},
        {"1920x1080", {}},
        {"", {}},
        {",,,", {}},
        {"axb,1x,x1,", {}},
        {"0x5,5x0,", {}},
        {"99999999999999999999x5,", {}},
        {"-5x5,4x4,", {{4, 4}}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(parse_largest_resolution(c.list), c.expected) << c.list;
    }
}

TEST(Capture, TakesImagesUntilStopped) {
    set_resolution("96x64,48x32");
    const std::string folder = fresh_folder() + "/monitoring_snapshots";
    const int descriptors = open_descriptors();
    log_capture log;
    EXPECT_FALSE(vdrl_capture_start(parameters.get(), 1, folder));
    ASSERT_TRUE(vdrl_capture_start(parameters.get(), 2, folder));
    EXPECT_FALSE(vdrl_capture_start(parameters.get(), 2, folder));
    vdrl_capture_close();
    EXPECT_TRUE(is_loaded()) << "refused while it runs";
    ASSERT_TRUE(wait_until([&] { return images(folder).size() >= 2; }));
    vdrl_capture_stop();
    const auto taken = images(folder);
    vdrl_capture_stop();
    // A new start within the sleep of the last one, and an hour's sleep to be woken from.
    ASSERT_TRUE(vdrl_capture_start(parameters.get(), 3600, folder + "2"));
    ASSERT_TRUE(wait_until([&] { return images(folder + "2").size() == 1; }));
    vdrl_capture_stop();
    vdrl_capture_close();
    EXPECT_FALSE(is_loaded());
    EXPECT_EQ(images(folder), taken);
    for (const std::string &name : taken) {
        const std::string jpeg = read_file(folder + "/" + name);
        EXPECT_TRUE(jpeg.starts_with("\xFF\xD8") && jpeg.ends_with("\xFF\xD9"));
        EXPECT_EQ(without_times({name}), texts{"T.jpg"});
    }
    EXPECT_LE(open_descriptors(), descriptors + 1); // the log's
    EXPECT_EQ(log.texts(),
              (texts{refused + "Image capture interval must be at least 1 second.", started,
                     refused + "Image capturing is already running.",
                     error + "Could not unload libcapture: Image capturing is running.", started}));
}

TEST(Capture, AThousandStartsAndStops) {
    set_resolution("16x16,");
    const std::string folder = fresh_folder();
    log_capture log;
    const int threads = thread_count();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(vdrl_capture_start(parameters.get(), 2, folder + "/" + std::to_string(i % 2)));
        if (i % 10 == 0) {
            ASSERT_TRUE(wait_until([&] { return !images(folder + "/0").empty(); }));
        }
        vdrl_capture_stop();
        const std::size_t count = images(folder + "/0").size();
        EXPECT_LE(thread_count(), threads + 1);
        if (i % 10 == 0) {
            EXPECT_EQ(images(folder + "/0").size(), count);
            fs::remove_all(folder + "/0");
        }
    }
    vdrl_capture_close();
    EXPECT_EQ(thread_count(), threads);
    EXPECT_EQ(log.texts(), texts(1000, started));
}

TEST(Capture, WhatEndsTheThread) {
    const std::string good = fresh_folder() + "/images";
    write_file("/tmp/file", "");
    const struct {
        std::string resolution, folder, message;
    } cases[] = {
        {"16x16,", "/tmp/file/images",
         "ERR (vdrl_capture:#, errno: Not a directory) Failed to mkdir /tmp/file/images"},
        {"", good, error + "Failed to retrieve resolution parameter, stopping image thread."},
        {"16x16", good,
         error + "Failed to parse resolution parameter, stopping image thread.\n16x16"},
        {"9000x16,", good, error + "Failed to open stream"},
    };
    for (const auto &c : cases) {
        set_resolution(c.resolution);
        log_capture log;
        vdrl_capture_keep_going(parameters.get(), 2, c.folder);
        EXPECT_TRUE(wait_until([&log] { return log.texts().size() == 2; }));
        // Tried again, without a word as long as it fails.
        for (int tick = 0; tick < 20; ++tick) {
            vdrl_capture_keep_going(parameters.get(), 2, c.folder);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        const bool can_be_mended = c.folder == good;
        if (can_be_mended) {
            set_resolution("16x16,");
            EXPECT_TRUE(wait_until([&] {
                vdrl_capture_keep_going(parameters.get(), 2, c.folder);
                return !images(good).empty();
            }));
        }
        vdrl_capture_stop();
        vdrl_capture_close();
        const auto lines = log.texts();
        EXPECT_EQ(lines.size(), can_be_mended ? 3U : 2U);
        EXPECT_EQ(std::set(lines.begin(), lines.begin() + 2), (std::set{started, c.message}));
        fs::remove_all(good);
    }
}

TEST(Capture, AThreadThatDoesNotEndKeepsTheLibrary) {
    set_resolution("1920x1080,");
    const std::string folder = fresh_folder();
    // A storage that does not come back, as a library that does not.
    log_capture log;
    storage_hangs = true;
    ASSERT_TRUE(vdrl_capture_start(parameters.get(), 2, folder));
    ASSERT_TRUE(wait_until([] { return storage_is_asked.load(); }));
    vdrl_capture_stop();
    vdrl_capture_close();
    EXPECT_TRUE(is_loaded());
    EXPECT_FALSE(vdrl_capture_start(parameters.get(), 2, folder));
    storage_hangs = false;
    EXPECT_TRUE(wait_until([] {
        vdrl_capture_close();
        return !is_loaded();
    }));
    EXPECT_EQ(without_times(log.texts()),
              (texts{started, error + "The image thread does not end, libcapture stays loaded.",
                     refused + "Couldn't start thread."}));
    EXPECT_TRUE(images(folder).empty());
}

// Last, as it changes what the root has for a library.
TEST(Capture, TheLibraryIsMissingOrIncomplete) {
    const std::string library = "/lib/libcapture.so";
    std::string bytes = read_file(library);
    ASSERT_EQ(::umount2(library.c_str(), MNT_DETACH), 0);
    fs::remove(library);
    for (const bool is_there : {false, true}) {
        log_capture log;
        EXPECT_FALSE(vdrl_capture_start(parameters.get(), 2, "/tmp/images"));
        vdrl_capture_stop();
        vdrl_capture_close();
        EXPECT_FALSE(is_loaded());
        texts lines = log.texts();
        if (is_there) {
            EXPECT_TRUE(lines.front().starts_with(
                "WARNING Could not load function 'capture_frame_free' from libcapture: "));
            lines.erase(lines.begin());
        }
        EXPECT_EQ(lines, (texts{"NOTICE Some or all necessary functions could not be loaded from "
                                "libcapture.",
                                refused + "Could not load libcapture."}));
        // Another name of the same ending: other symbols' names may be kept as a part of it.
        const std::string symbol = "capture_frame_free";
        for (auto at = bytes.find(symbol); at != std::string::npos; at = bytes.find(symbol)) {
            bytes.replace(at, symbol.size(), "capture-frame_free");
        }
        write_file(library, bytes);
    }
}
