#include "eventlistener.h"
#include "log_capture.h"
#include "sandbox.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

using texts = std::vector<std::string>;

const std::string dashes(35, '-');
const std::string error = "ERR (eventlistener:#, errno: None) ";

// What is logged for lines of the tool, the separator behind them included.
texts logged_for(const texts &lines) {
    log_capture log;
    eventlistener_Event event;
    for (const std::string &line : lines) {
        EXPECT_FALSE(eventlistener_take_line(event, line.c_str()));
    }
    EXPECT_TRUE(eventlistener_take_line(event, ("x " + dashes + " y").c_str()));
    log_event(event);
    return log.texts();
}

std::string event_line(const std::string &text) {
    return "INFO Metadata Event " + text;
}

} // namespace

TEST(Events, BecomeOneLine) {
    const std::string name(60, 'n');
    const std::string item(200, 'i');
    const struct {
        texts lines, expected;
    } cases[] = {
        {{}, {event_line(" ")}},
        {{"Timestamp: 2026-11-21T04:05:06Z"}, {event_line("2026-11-21T04:05:06Z ")}},
        {{"Timestamp: " + std::string(40, 't')}, {event_line(std::string(31, 't') + " ")}},
        {{"Timestamp: T [tns1:topic1 = 'Door'] [tnstarvo:topic0 = 'Device']",
          " [port = '1'] {onvif-source}", " [active = '0'] {onvif-data} {property-state}"},
         {event_line("T tarvo:Device/onvif:Door/port = '1'/active = '0'")}},
        {{"[tnstarvo:topic9 x y = 'Nine'", "[tnstarvo:topic3 = ", "[tnstarvo:topic4"},
         {"WARNING Could not find ending apostrophe for topic name, skipping.",
          event_line(" tarvo:Nine")}},
        {{"[tnstarvo:topic0 = 'A']", "[tns1:topic0 = 'B'] [tnstarvo:topic1 = 'C']"},
         {"WARNING Duplicate topics with index 0, skipping. Found 'onvif:B', already got 'tarvo:A'",
          event_line(" tarvo:A")}},
        {{"[tnstarvo:topicX = 'A']", "[tnstarvo:topic = 'A']", "[tnstarvo:topic0 = 'A"},
         {"WARNING Topic number is not a digit, skipping.",
          "WARNING Topic number is not a digit, skipping.",
          "WARNING Could not find ending apostrophe for topic name, skipping.", event_line(" ")}},
        {{"x[tnstarvo:topic0 = 'A']", "[other:topic0 = 'A']", " [x] {onvif-data}",
          " x] {onvif-source}"},
         {event_line(" ")}},
        {{"[tns1:topic0 = '" + name + "']", " [" + item + "] {onvif-source}"},
         {event_line(" onvif:" + name.substr(0, 41) + "/" + item.substr(0, 127))}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(logged_for(c.lines), c.expected);
    }
    texts full;
    for (int level = 0; level < 10; ++level) {
        full.push_back("[tnstarvo:topic" + std::to_string(level) + " = '" + name + "']");
    }
    full.push_back(" [" + item + "] {onvif-source}");
    std::string tree;
    for (int level = 0; level < 10; ++level) {
        tree += (level == 0 ? "" : "/") + ("tarvo:" + name.substr(0, 41));
    }
    EXPECT_EQ(logged_for(full),
              texts{error +
                    "Metadata Event topic_tree is too small. Skipping topic starting with '" +
                    tree + "' while adding '" + item.substr(0, 127) + "'."});
}

TEST(EventListener, CopiesAndCondenses) {
    const std::string session = fresh_folder();
    const std::string copy = session + "/system_monitoring/monitoring_metadata/eventlistener.txt";
    log_capture log;
    EXPECT_FALSE(eventlistener_start(session));
    // The event that a longer line is a part of lacks it.
    install_tool("/usr/bin/eventlistener",
                 "echo \"[tnstarvo:topic0 = 'Args$*']\"\nhead -c 10000 /dev/zero | tr '\\0' x\n"
                 "echo\necho " +
                     dashes + "\nexec sleep 1000\n");
    EXPECT_FALSE(eventlistener_start(session)) << "there is no folder";
    fs::create_directories(session + "/system_monitoring");
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(eventlistener_start(session));
        EXPECT_FALSE(eventlistener_start(session));
        ASSERT_TRUE(
            wait_until([&] { return log.texts().size() == 5U + 3U * static_cast<unsigned>(i); }));
        eventlistener_keep_running(session); // it is
        eventlistener_stop();
        eventlistener_stop();
    }
    const std::string twice = "[tnstarvo:topic0 = 'Args-r']\n" + dashes + "\n";
    EXPECT_EQ(read_file(copy), twice + twice);
    const std::string refused = error + "Could not start eventlistener: ";
    const texts run{"INFO Started eventlistener.", refused + "Thread is already running.",
                    event_line(" tarvo:Args-r")};
    texts lines = log.texts();
    EXPECT_EQ(lines[0], "INFO Could not start eventlistener: Eventlistener application not found.");
    EXPECT_EQ(lines[1], "ERR (eventlistener:#, errno: No such file or directory) Could not start "
                        "eventlistener: Could not create monitoring_metadata/eventlistener.txt");
    for (const std::string &line : run) {
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 2) << line;
    }
    EXPECT_EQ(zombie_children(), 0);
}

TEST(EventListener, KnowsWhenNothingMoreComes) {
    const std::string folder = fresh_folder() + "/system_monitoring/monitoring_metadata";
    fs::create_directories(folder);
    const std::string session = fs::path(folder).parent_path().parent_path();
    log_capture log;
    const auto times = [&log](const std::string &text) {
        const texts lines = log.texts();
        return std::count(lines.begin(), lines.end(), text);
    };
    const auto is_started_again = [&] {
        eventlistener_keep_running(session);
        return times("INFO Started eventlistener.") == 2;
    };
    // One that has ended by itself is as good as none.
    install_tool("/usr/bin/eventlistener", "");
    EXPECT_TRUE(wait_until(is_started_again));
    eventlistener_stop();
    install_tool("/usr/bin/eventlistener",
                 "for i in 1 2 3; do echo " + dashes + "; done\nexec sleep 1000\n");
    ASSERT_EQ(std::system(("mount -t tmpfs -o size=4k none " + folder).c_str()), 0);
    write_file(folder + "/rest", std::string(4096, 'x'));
    const std::size_t before = log.texts().size();
    ASSERT_TRUE(eventlistener_start(session));
    EXPECT_TRUE(wait_until([&] { return log.texts().size() == before + 5; }));
    EXPECT_EQ(times("WARNING Could not write to eventlistener.txt: No space left on device"), 1);
    eventlistener_keep_running(session);
    EXPECT_EQ(times("INFO Started eventlistener."), 4);
    eventlistener_stop();
}
