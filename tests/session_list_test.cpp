#include "log_capture.h"
#include "main_timer.h"
#include "sandbox.h"
#include "session_list.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

const std::string session = "/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/20230531_08_27_40";
const std::string block =
    "Path:" + session +
    "\nMonitoring:\nmonitoring_basic\nmonitoring_load\nStartTime:\nWed May 31 "
    "08:27:40\n";
const std::string end = "EndTime:\nStill active\n";

std::string json_of(const std::string &text, session_list_kind kind) {
    const std::string path = fresh_folder() + "/list";
    write_file(path, text);
    return session_list_json(path.c_str(), kind);
}

} // namespace

TEST(SessionList, WritesEachSessionAsTheClientsKnowIt) {
    fs::create_directories(session);
    write_file(session + "/monitor.zip", "old");
    const std::string object =
        "{\"Path\":\"" + session +
        "\", \"Monitoring\": [{ \"Monitor\":\"Just to start\"},{\"Monitor\":\"monitoring_basic\"},"
        "{\"Monitor\":\"monitoring_load\"}]";
    const std::string found = json_of(block + end, session_list_kind::found);
    const auto size = found.find(",\"size\":\"");
    EXPECT_EQ(found.substr(0, size), "[" + object + ",\"zipping\":\"yes\"");
    EXPECT_GT(std::atol(found.c_str() + size + 9), 0);
    EXPECT_EQ(found.substr(found.find("\", \"StartTime\"")),
              "\", \"StartTime\": \"Wed May 31 08:27:40\", \"EndTime\": \"Still active\"}]");
    EXPECT_FALSE(fs::exists(session + "/monitor.zip"));

    write_file(session + ".zip", "");
    EXPECT_NE(json_of(block + end, session_list_kind::found).find(",\"zipping\":\"no\","),
              std::string::npos);
    fs::remove_all(session);
    EXPECT_EQ(json_of(block + block, session_list_kind::lost),
              "[" + object + ",\"size\":\"0\", \"StartTime\": \"Wed May 31 08:27:40\"}," + object +
                  ",\"size\":\"0\", \"StartTime\": \"Wed May 31 08:27:40\"}]");
}

TEST(SessionList, MeasuresASessionThatHasEndedOnce) {
    install_tool("du", "echo >>/tmp/measured; wc -l </tmp/measured");
    fs::create_directories(session);
    write_file(session + "/Session_Information.txt", "x");
    const auto kibibytes = [](const char *end_time) {
        const std::string json =
            json_of(block + "EndTime:\n" + end_time + "\n", session_list_kind::found);
        return std::atol(json.c_str() + json.find(",\"size\":\"") + 9) / 1024;
    };
    const char *ended = "Wed May 31 09:00:00 UTC 2023";
    EXPECT_EQ(kibibytes("Still active"), 1);
    EXPECT_EQ(kibibytes("Still active"), 2);
    EXPECT_EQ(kibibytes(ended), 3);
    EXPECT_EQ(kibibytes(ended), 3);
    fs::last_write_time(session + "/Session_Information.txt",
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
    EXPECT_EQ(kibibytes(ended), 4);
    write_file(session + "/late_report.txt", "");
    EXPECT_EQ(kibibytes(ended), 5);
    fs::remove("/test/bin/du");
    fs::remove_all(session);
}

TEST(SessionList, ListsWhatADamagedListStillNames) {
    // Cut anywhere it stays an array of whole objects, and text behind the last line end is
    // ignored.
    const std::string whole = block + end + block + end;
    const auto count = [](const std::string &json, char ch) {
        return std::count(json.begin(), json.end(), ch);
    };
    for (std::size_t length = 61; length < whole.size(); ++length) {
        const std::string json = json_of(whole.substr(0, length), session_list_kind::found);
        EXPECT_EQ(json.front(), '[');
        EXPECT_EQ(json.back(), ']');
        EXPECT_EQ(count(json, '{'), count(json, '}')) << length;
        EXPECT_EQ(count(json, '"') % 2, 0) << length;
    }
    EXPECT_EQ(json_of(std::string(60, 'P'), session_list_kind::found), "[]");
    EXPECT_EQ(json_of(std::string(100'000, '\0'), session_list_kind::found), "[]");
    // A path of the list is nobody's to follow: nothing below it is removed.
    write_file("/tmp/other/monitor.zip", "kept");
    json_of("Path:/tmp/other\nMonitoring:\nStartTime:\n" + std::string(60, 'x') + "\n",
            session_list_kind::found);
    EXPECT_TRUE(fs::exists("/tmp/other/monitor.zip"));

    log_capture log;
    EXPECT_EQ(session_list_json("/missing", session_list_kind::found), "[]");
    EXPECT_EQ(session_list_json("/missing", session_list_kind::lost), "[]");
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{"NOTICE No previous monitoring sessions were found.",
                                        "ERR (session_list:#, errno: None) No previous monitoring "
                                        "sessions were found."}));
}
