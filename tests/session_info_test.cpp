#include "log_capture.h"
#include "sandbox.h"
#include "session_globals.h"
#include "session_info.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *card = "/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/";

// The information file after one update of a field.
std::string updated(const std::string &before, const std::string &field, session_info_update update,
                    const std::string &default_value) {
    const std::string folder = fresh_folder();
    write_file(folder + "/Session_Information.txt", before);
    read_and_update_session_info(folder, field, update, default_value);
    EXPECT_EQ(list_folder(folder), std::vector<std::string>{"Session_Information.txt"});
    return read_file(folder + "/Session_Information.txt");
}

} // namespace

TEST(SessionInfo, KnowsASessionDirectory) {
    const std::string internal = "/usr/local/packages/Vandrel/localdata/";
    const struct {
        std::string path;
        bool exists, is_session;
    } cases[] = {
        {card + std::string("20230531_08_27_40"), true, true},
        {card + std::string("10000000_24_60_60"), true, true}, // the bounds are loose
        {internal + "20230531_08_27_40", true, true},
        {card + std::string("20230531_08_27_41"), false, false},
        {card + std::string("20230531_08_27_40/"), true, false},
        {card + std::string("20230531_08_27_4"), true, false},
        {card + std::string("20231331_08_27_40"), true, false},
        {card + std::string("2023053x_08_27_40"), true, false},
        {card + std::string("../Vandrel_A1B2C3D4E5F6/20230531_08_27_40"), true, false},
        {"/var/spool/storage/SD_DISK/Other/20230531_08_27_40", true, false},
        {"/tmp/Vandrel/20230531_08_27_40", true, false},
        {card + std::string("`id`/20230531_08_27_40"), true, false},
        {card + std::string(5000, 'x') + "/20230531_08_27_40", false, false},
        {"", false, false},
    };
    for (const auto &c : cases) {
        if (c.exists) {
            fs::create_directories(c.path);
        }
        EXPECT_EQ(is_monitory_dir(c.path.c_str()), c.is_session) << c.path.substr(0, 100);
    }
    EXPECT_FALSE(is_monitory_dir(nullptr));
    fs::create_directory_symlink("/etc", card + std::string("20230531_08_27_59"));
    EXPECT_FALSE(is_monitory_dir((card + std::string("20230531_08_27_59")).c_str()));
}

TEST(SessionInfo, KnowsATraceDirectory) {
    const std::string folder = card + std::string("door-1.a");
    write_file(folder + "/wireshark_signature.txt", "Start:2026-11-21 05:50:48\n");
    fs::create_directories(card + std::string("other"));
    fs::create_directory_symlink(folder, card + std::string("link"));
    fs::create_directories(card + std::string("linked"));
    fs::create_symlink(folder + "/wireshark_signature.txt",
                       card + std::string("linked/wireshark_signature.txt"));
    write_file("/tmp/Vandrel/wireshark_signature.txt", "");
    write_file(card + std::string("session/wireshark_signature.txt"), "");
    fs::create_directories(card + std::string("session/system_monitoring"));
    EXPECT_TRUE(is_trace_dir(folder.c_str()));
    for (const std::string &path :
         {card + std::string("other"), card + std::string("link"), card + std::string("link/"),
          card + std::string("linked"), card + std::string("session"),
          card + std::string("/door-1.a"), card + std::string("./door-1.a"),
          card + std::string("other/../door-1.a"), card + std::string("missing"), folder + "/",
          folder + "/.", folder + "/wireshark_signature.txt", std::string("/tmp/Vandrel"),
          folder + std::string(5000, '/'), std::string()}) {
        EXPECT_FALSE(is_trace_dir(path.c_str())) << path.substr(0, 100);
    }
    EXPECT_FALSE(is_trace_dir(nullptr));
}

TEST(SessionInfo, RewritesOneField) {
    const std::string others = "Model Name: X\r\nDurations: 5\r\n";
    const std::string zero = "0 Days 0 hours 0 minutes";
    const struct {
        std::string before, after;
    } durations[] = {
        {others + "Duration: 1 Days 23 hours 59 minutes\r\n" + others,
         others + "Duration: 2 Days 0 hours 0 minutes\n" + others},
        {others + "Duration: 0 Days 0 hours 59 minutes\n",
         others + "Duration: 0 Days 1 hours 0 minutes\n"},
        {others, others + "Duration: " + zero + "\n"},
        {"Duration: long\n", "Duration: long\nDuration: " + zero + "\n"},
        {"", "Duration: " + zero + "\n"},
        {"no line end", "no line endDuration: " + zero + "\n"},
    };
    for (const auto &c : durations) {
        EXPECT_EQ(updated(c.before, "Duration", update_duration, zero), c.after);
    }
    updated("Duration: 1 Days 23 hours 59 minutes\n", "Duration", update_duration, zero);
    EXPECT_EQ(monitor_active_minutes_count, 2880U);

    EXPECT_EQ(
        updated("Collected Data Points: 41\r\n", "Collected Data Points", update_data_points, "1"),
        "Collected Data Points: 42\n");
    EXPECT_EQ(updated("x\n", "Collected Data Points", update_data_points, "1"),
              "x\nCollected Data Points: 1\n");
}

TEST(SessionInfo, LosesNothingWhenANewFileCanNotBeWritten) {
    const std::string folder = fresh_folder();
    log_capture log;
    update_session_duration(folder);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"WARNING (errno: No such file or directory) Could not open "
                                       "file '" +
                                       folder + "/Session_Information.txt'"});
    log.clear();
    // In place of the temporary file stands what can't be opened for writing.
    write_file(folder + "/Session_Information.txt", "Duration: 0 Days 0 hours 1 minutes\n");
    fs::create_directory(folder + "/Session_Information_tmp_tmp.txt");
    update_session_duration(folder);
    EXPECT_EQ(read_file(folder + "/Session_Information.txt"),
              "Duration: 0 Days 0 hours 1 minutes\n");
    EXPECT_EQ(log.lines().size(), 1U);
    log.clear();
    // On a full storage it is written in place.
    const std::string full = fresh_folder();
    const std::string others(5000, 'x');
    ASSERT_EQ(std::system(("mount -t tmpfs -o size=16k none " + full).c_str()), 0);
    write_file(full + "/Session_Information.txt", "Duration: 0 Days 0 hours 9 minutes\n" + others);
    write_file(full + "/rest", std::string(8192, 'x'));
    update_session_duration(full);
    EXPECT_EQ(read_file(full + "/Session_Information.txt"),
              "Duration: 0 Days 0 hours 10 minutes\n" + others);
    EXPECT_EQ(list_folder(full), (std::vector<std::string>{"Session_Information.txt", "rest"}));
    EXPECT_TRUE(log.lines().empty());
    read_and_update_session_info(folder, std::string(1001, 'x'), update_data_points, "1");
    EXPECT_NE(log.texts().at(0).find("Cannot read field names larger than 1000 characters"),
              std::string::npos);
}
