#include "log_capture.h"
#include "sandbox.h"
#include "session_globals.h"
#include "storage_investigator.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

// A storage's block as dbus-send prints it: name at line 0, status at 3, booleans from 5 on.
std::string block(const std::string &name, const std::string &status, bool six, bool nine,
                  bool ten) {
    const auto truth = [](bool value) { return value ? "true" : "false"; };
    std::string text = "         string \"" + name + "\"\n         struct {\n" +
                       "            string \"ext4\"\n            string \"" + status +
                       "\"\n            uint32 5\n";
    for (int position = 5; position <= 12; ++position) {
        const bool value = position == 6 ? six : position == 9 ? nine : position == 10 && ten;
        text += std::string("            boolean ") + truth(value) + "\n";
    }
    return text + "         }\n";
}

bool healthy(const std::string &reply, const std::string &name = "SD_DISK") {
    storage_reply_reader reader(name);
    for (std::size_t start = 0; start < reply.size();) {
        const auto end = std::min(reply.find('\n', start), reply.size() - 1) + 1;
        reader.take_line(reply.substr(start, end - start));
        start = end;
    }
    return reader.is_healthy();
}

} // namespace

TEST(StorageInvestigator, ReadsAStorageByItsWholeName) {
    const std::string good = block("SD_DISK", "OK", true, false, false);
    const struct {
        const char *what;
        std::string reply;
        bool healthy;
    } cases[] = {
        {"alone", good, true},
        {"after another", block("NetworkShare", "Failed", false, true, true) + good, true},
        {"before another", good + block("NetworkShare", "Failed", false, true, true), true},
        {"of a longer name", block("OLD_SD_DISK", "OK", true, false, false), false},
        {"of a shorter name", block("D_DISK", "OK", true, false, false), false},
        {"bad status", block("SD_DISK", "Failed", true, false, false), false},
        {"6 false", block("SD_DISK", "OK", false, false, false), false},
        {"9 true", block("SD_DISK", "OK", true, true, false), false},
        {"10 true", block("SD_DISK", "OK", true, false, true), false},
        {"nothing", "", false},
        {"cut before 6", good.substr(0, good.find("boolean") + 10), false},
        {"no end", "\"SD_DISK\"\n" + std::string(1'000'000, 't') + "\n", false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(healthy(c.reply), c.healthy) << c.what;
    }
    EXPECT_FALSE(healthy(good, ""));
}

TEST(StorageInvestigator, LogsALossOnceUntilTheStorageIsBack) {
    const std::string good = block("SD_DISK", "OK", true, false, false);
    const auto ok = [](bool log_also) {
        return determine_if_this_storage_is_ok("SD_DISK", log_also);
    };
    install_recorder("dbus-send", good);
    EXPECT_TRUE(ok(true));
    EXPECT_EQ(recorded_calls(),
              std::vector<std::string>{"dbus-send --system --print-reply --reply-timeout=6000 "
                                       "--dest=com.tarvo.Storage --type=method_call "
                                       "/com/tarvo/Storage com.tarvo.Storage.GetAllStoragesInfo"});
    log_capture log;
    install_tool("dbus-send", "kill -9 $$\n");
    EXPECT_FALSE(ok(true));
    EXPECT_TRUE(log.lines().empty());
    const std::string other = block("NetworkShare", "OK", true, false, false);
    install_recorder("dbus-send", other);
    for (int loss = 0; loss < 2; ++loss) {
        EXPECT_FALSE(ok(true));
        EXPECT_TRUE(
            determine_if_this_storage_is_ok("NetworkShare", true)); // no news of the lost one
        EXPECT_FALSE(ok(true));
        install_recorder("dbus-send", good);
        EXPECT_TRUE(ok(true));
        install_recorder("dbus-send", other);
    }
    EXPECT_FALSE(ok(false)); // silent, and the next one is no news
    EXPECT_FALSE(ok(true));
    const std::string loss = "ERR (storage_investigator:#, errno: None) "
                             "determine_if_this_storage_is_ok: Lost connection to storage "
                             "location: SD_DISK, no data can be saved.";
    EXPECT_EQ(log.texts(), (std::vector<std::string>{loss, loss}));
}

TEST(StorageInvestigator, ReadsHowFullAPartitionIs) {
    const std::string head = "Filesystem 1024-blocks Used Available Capacity Mounted on\n";
    const struct {
        std::string output;
        int percent;
        bool room;
    } cases[] = {
        {head + "/dev/x 100 89 11 89% /x\n", 89, true},
        {head + "/dev/x 100 90 10 90% /x\n", 90, false},
        {head + "/dev/x 100 100 0 100% /x\n", 100, false},
        {head + "/dev/x 100 0 100 0% /x\n", 0, true},
        {head + "x1234%\n", 234, false},
        {head + "12%\n", 2, true}, // a line's first character is never read
        {head + "%\n", 0, true},
        {head + "nothing\n", 0, true},
        {head, 0, true},
        {"", -1, false},
    };
    recorded_calls();
    log_capture log;
    for (const auto &c : cases) {
        install_recorder("/bin/df", c.output);
        EXPECT_EQ(get_storage_use_pcent("/x"), c.percent) << c.output;
        EXPECT_EQ(check_partition_usage("/x"), c.room) << c.output;
    }
    EXPECT_EQ(recorded_calls().at(0), "df -k -P /x");
    EXPECT_EQ(log.texts().back(), "WARNING Could not get usage of partition for path '/x'.");
    log.clear();
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{3, limit.rlim_max}; // no further one
    ::setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(get_storage_use_pcent("/x"), -1);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_EQ(log.texts(), (std::vector<std::string>{
                               "ERR (storage_investigator:#, errno: Too many open files) Could not "
                               "popen: /bin/df -k -P '/x'"}));
    log.clear();
    EXPECT_EQ(get_storage_use_pcent("x"), -1);
    EXPECT_FALSE(check_partition_usage(nullptr));
    EXPECT_EQ(
        log.texts(),
        (std::vector<std::string>{
            "ERR (storage_investigator:#, errno: None) Expected an absolute path, got 'x'",
            "ERR (storage_investigator:#, errno: None) Expected an absolute path, got '[NULL]'",
            "WARNING Could not get usage of partition for path '[NULL]'."}));
}

TEST(StorageInvestigator, MeasuresWhatTheRunningSessionTakes) {
    const std::string folder = fresh_folder();
    write_file(folder + "/s/file", std::string(100'000, 'x'));
    const unsigned long size = get_dir_size_bytes(folder + "/s");
    EXPECT_EQ(size % 1024, 0U);
    EXPECT_GE(size, 100'000U);
    EXPECT_LE(size, 120'000U);
    EXPECT_EQ(get_dir_size_bytes(folder + "/missing"), 0U);

    log_capture log;
    EXPECT_EQ(get_dir_size_bytes("/$(touch /tmp/run)"), 0U);
    EXPECT_EQ(get_dir_size_bytes("/" + std::string(300, 'x')), 0U);
    EXPECT_EQ(::access("/tmp/run", F_OK), -1);
    log.clear();
    EXPECT_EQ(storage_consumption_log_message(nullptr), FALSE);
    _set_secondary_storage_path(folder + "/");
    _set_current_activity_folder("s");
    storage_consumption_log_message(nullptr);
    _set_storage_id("SD_DISK");
    storage_consumption_log_message(nullptr);
    const std::string start =
        "INFO System monitoring session is consuming " + std::to_string(size) + " B on ";
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{start + "Internal Storage", start + "SD_DISK"}));
}
