#include "app_state.h"
#include "log_capture.h"
#include "main_timer.h"
#include "report_queue.h"
#include "sandbox.h"
#include "scheduled_tasks.h"
#include "session_globals.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sys/mount.h>

namespace fs = std::filesystem;

namespace {

void tick_at(unsigned long number) {
    timer_count = number;
    EXPECT_EQ(timer_callback(nullptr), TRUE);
}

// A session on a card of which `percent` is used, with the storage service's reply.
class MainTimer : public testing::Test {
  protected:
    void SetUp() override {
        serial_number = "A1B2C3D4E5F6";
        root_ = "/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/";
        session_ = root_ + "20230531_08_27_40";
        fs::create_directories(session_);
        write_file(session_ + "/Session_Information.txt", "Duration: 0 Days 0 hours 1 minutes\n");
        _set_secondary_storage_path(root_);
        _set_storage_id("SD_DISK");
        _set_current_activity_folder("20230531_08_27_40");
        monitory_active = true;
        connection_lost_count = 0;
        for (const char *script : {"collect_action_rules", "collect_monitoring_sessions",
                                   "continuous_syslog_cat", "vela_status_monitor"}) {
            install_recorder("/usr/local/packages/Vandrel/" + std::string(script) + ".sh");
        }
        for (const char *tool : {"gen_serverreport.sh", "zip", "ps", "top"}) {
            install_recorder(tool);
        }
        use(20);
        storage(true);
    }
    void TearDown() override {
        monitory_active = false;
        fs::remove_all("/var/spool/storage/SD_DISK");
    }

    static void use(int percent) {
        install_recorder("/bin/df", percent < 0 ? ""
                                                : "Filesystem x\n/dev/x 1 1 1 " +
                                                      std::to_string(percent) + "% /x\n");
    }
    static void storage(bool healthy) {
        const std::string head = "\"SD_DISK\"\n1\n2\n\"OK\"\n4\ntrue\n";
        install_recorder("dbus-send", healthy ? head + "true\n}\n" : head + "false\n}\n");
    }

    std::string root_;
    std::string session_;
};

} // namespace

TEST(Countdowns, AnnounceATickAheadAndAct) {
    install_recorder("/sbin/reboot");
    install_recorder("dbus-send");
    automatic_restart_interval = true;
    starting_tick = 10;
    nbr_of_ticks_until_activation = 5;
    ptz_test_interval = true;
    ptz_starting_tick = 10;
    ptz_nbr_of_ticks_until_activation = 3;
    const std::string restart = "reboot";
    const std::string test =
        "dbus-send --system --type=method_call --print-reply --reply-timeout=3000 "
        "--dest=com.tarvo.PTZ.Coordinator /com/tarvo/PTZ/Coordinator/1 "
        "com.tarvo.PTZ.Coordinator.Auxiliary string:Operator int32:0 string:reset";
    const struct {
        unsigned long tick;
        std::vector<std::string> log, calls;
    } cases[] = {
        {11, {}, {}},
        {12, {"WARNING Automatic PTZ Test"}, {}},
        {13, {}, {test}},
        {14, {"WARNING Automatic Restart"}, {}},
        {15, {"WARNING Automatic PTZ Test"}, {restart}},
        {16, {}, {restart, test}},
        // The count starts again at 0 and the countdowns with it.
        {59'999'999, {}, {restart, test}},
        {0, {}, {}},
        {4, {"WARNING Automatic Restart"}, {test}},
    };
    for (const auto &c : cases) {
        log_capture log;
        tick_at(c.tick);
        EXPECT_EQ(log.texts(), c.log) << c.tick;
        EXPECT_EQ(recorded_calls(), c.calls) << c.tick;
    }
    tick_at(59'999'999);
    EXPECT_EQ(timer_count, 0U);
    automatic_restart_interval = ptz_test_interval = false;
}

TEST_F(MainTimer, RunsWhatIsDue) {
    for (const char *script : {"vmstatus_monitoring", "topstatus_monitoring", "power"}) {
        install_recorder("/usr/local/packages/Vandrel/" + std::string(script) + ".sh");
    }
    install_recorder("uptime", "load average: 1, 2, 3\n");
    write_file("/etc/ws/onvif/media/media.conf", "x");
    // The programs that a tick runs and the folders that it writes to, each once. Some of them run
    // behind it.
    const auto ran = [this](unsigned long tick, const std::string &expected) {
        const std::string folder = session_ + "/system_monitoring/";
        fs::remove_all(folder);
        for (const char *name : {"basic/Server_Reports", "devicetest", "koral", "load"}) {
            fs::create_directories(folder + "monitoring_" + name);
        }
        recorded_calls();
        tick_at(tick);
        report_queue_finish(std::chrono::minutes(1));
        std::set<std::string> names;
        std::string text;
        (void)wait_until([&] {
            for (const std::string &call : recorded_calls(false)) {
                names.insert(call.substr(0, call.find(' ')));
            }
            for (const auto &entry : fs::recursive_directory_iterator(folder)) {
                if (entry.is_regular_file()) {
                    names.insert(entry.path().parent_path().filename());
                }
            }
            names.erase("monitoring_slabinfo"); // not every kernel has it
            text.clear();
            for (const std::string &name : names) {
                text += (text.empty() ? "" : " ") + name;
            }
            return text == expected;
        });
        return text;
    };
    log_capture log;
    const std::string tools = "power.sh ps top topstatus_monitoring.sh uptime "
                              "vela_status_monitor.sh vmstatus_monitoring.sh";
    const std::string collection =
        "collect_monitoring_sessions.sh dbus-send df monitoring_devicetest monitoring_load "
        "monitoring_streams " +
        tools;
    const std::string with_copies =
        "Server_Reports collect_monitoring_sessions.sh dbus-send df gen_serverreport.sh "
        "monitoring_devicetest "
        "monitoring_interrupts monitoring_load monitoring_onvif monitoring_streams " +
        tools;
    const struct {
        bool external;
        unsigned long tick;
        std::string expected;
    } cases[] = {
        {true, 1, "dbus-send df"},
        {true, 2, collection},
        {true, 60, collection},
        {true, 120, with_copies},
        {true, 121, "dbus-send df"},
        {true, 360, with_copies},
        {false, 1, "df"},
        {false, 2, "df monitoring_devicetest"},
        {false, 60, "df monitoring_devicetest"},
        {false, 120, "df monitoring_devicetest monitoring_koral"},
        {false, 240, "df monitoring_devicetest monitoring_koral"},
        {false, 360,
         "df gen_serverreport.sh monitoring_devicetest monitoring_koral monitoring_onvif zip"},
    };
    for (const auto &[external, tick, expected] : cases) {
        _set_storage_id(external ? std::optional<std::string>("SD_DISK") : std::nullopt);
        EXPECT_EQ(ran(tick, expected), expected) << (external ? "external " : "internal ") << tick;
    }
}

TEST_F(MainTimer, ALostStorageIsWaitedFor) {
    use(-1);
    storage(false);
    recorded_calls();
    log_capture log;
    fs::rename(session_, root_ + "away");
    for (unsigned long tick = 1; tick <= 1500; tick += 499) {
        storage(tick > 1); // what its service calls healthy then is another card
        connection_lost_count = tick - 1;
        tick_at(tick);
        EXPECT_EQ(connection_lost_count, tick);
    }
    EXPECT_TRUE(monitory_active);
    EXPECT_FALSE(fs::exists(session_));
    const auto calls = recorded_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "collect_action_rules.sh A1B2C3D4E5F6"), 1);
    fs::rename(root_ + "away", session_);
    connection_lost_count = 1500;
    use(20);
    storage(true);
    tick_at(1501);
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{
                  "ERR (storage_investigator:#, errno: None) determine_if_this_storage_is_ok: Lost "
                  "connection to storage location: SD_DISK, no data can be saved.",
                  "ERR (main_timer:#, errno: None) Lost connection to edge storage location, no "
                  "data can be saved.",
                  "INFO Connection to edge storage location re-established, connection was lost "
                  "since 1 days 1 hours 1500 minutes. Continuing system monitoring session."}));
    EXPECT_EQ(connection_lost_count, 0U);
}

TEST_F(MainTimer, AStorageThatTakesNothingIsLost) {
    const char *card = "/var/spool/storage/SD_DISK";
    ASSERT_EQ(::mount("tmpfs", card, "tmpfs", 0, nullptr), 0);
    write_file(session_ + "/Session_Information.txt", "Duration: 0 Days 0 hours 1 minutes\n");
    fs::create_directories(session_ + "/system_monitoring/monitoring_load");
    install_tool("uptime", "echo 'load average: 1, 2, 3'\n");
    ASSERT_EQ(::mount(nullptr, card, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    log_capture log;
    for (unsigned long tick = 2; tick < 6; ++tick) {
        tick_at(tick);
        EXPECT_EQ(connection_lost_count, tick - 1);
    }
    const auto said = log.texts();
    EXPECT_EQ(std::count(said.begin(), said.end(),
                         "ERR (main_timer:#, errno: None) Lost connection to edge storage "
                         "location, no data can be saved."),
              1);
    EXPECT_LT(said.size(), 10U) << "what can't be written is said once";
    ASSERT_EQ(::mount(nullptr, card, nullptr, MS_REMOUNT, nullptr), 0);
    tick_at(6);
    EXPECT_EQ(connection_lost_count, 0U);
    monitory_active = false;
    ASSERT_EQ(::umount2(card, MNT_DETACH), 0);
}

TEST_F(MainTimer, AFullStorageEndsTheSession) {
    for (const bool usage_unknown : {false, true}) {
        SetUp();
        use(usage_unknown ? -1 : 90);
        recorded_calls();
        log_capture log;
        tick_at(1);
        EXPECT_FALSE(monitory_active);
        EXPECT_FALSE(session_directory());
        const auto said = log.texts();
        if (usage_unknown) {
            EXPECT_EQ(said.at(0),
                      "WARNING Could not get usage of partition for path '" + root_ + "'.");
        }
        EXPECT_EQ(said.at(usage_unknown ? 1 : 0),
                  "WARNING Secondary storage is running out of free space. "
                  "Deactivating monitoring session.");
        const std::string information = read_file(session_ + "/Session_Information.txt");
        EXPECT_NE(information.find("Stop Time of the session: "), std::string::npos);
        EXPECT_NE(information.find("Session Size: "), std::string::npos);
        // In the background.
        EXPECT_TRUE(wait_until([] {
            const auto calls = recorded_calls();
            return std::count(calls.begin(), calls.end(),
                              "zip --recurse-paths 20230531_08_27_40.zip 20230531_08_27_40 "
                              "--exclude .tmp*") == 1;
        }));
        // What stands in the place of the session's storage now is nobody's to write to.
        tick_at(2);
    }
}
