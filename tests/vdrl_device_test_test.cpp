#include "app_state.h"
#include "log_capture.h"
#include "sandbox.h"
#include "snapshots.h"
#include "vdrl_device_test.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>

namespace fs = std::filesystem;

namespace {

constexpr const char *rules_file = "/usr/local/packages/Vandrel/localdata/nc_rules.txt";
const std::string serial = "A1B2C3D4E5F6";
const std::string sent = "ERR (event:#, errno: None) [nfd] Error sending event\n"; // without a bus
std::string up_of(const std::string &name) {
    return "INFO Network Device Test: [" + name + "] Connection successfully established to host: ";
}
const std::string up = up_of("n");
const std::string down = "WARNING Network Device Test: [n] Connection failed to host: ";
const std::string first = "ERR (vdrl_device_test:#, errno: None) Network Device Test: Connection "
                          "failed to ip-address ";

std::string record(const std::string &address, int port, int fails = 1) {
    return "N:" + address + "\nP:" + std::to_string(port) + "\nT:1\nF:" + std::to_string(fails) +
           "\nL:n\n";
}

// One rule with an interval of one run, and no storage to log on.
class DeviceTest : public testing::Test {
  protected:
    void SetUp() override {
        install_recorder("dbus-send");
        fs::remove("/usr/bin/tcptest");
    }
    void load(const std::string &address, int port, int fails = 1) {
        write_file(rules_file, record(address, port, fails));
        log_capture declarations; // are refused without a bus
        rules_ = vdrl_dt_rules_read_from_file();
        ASSERT_TRUE(rules_);
    }
    std::vector<std::string> run() {
        log_capture log;
        vdrl_dt_run(rules_.get(), serial);
        finish();
        return log.texts();
    }
    void finish() {
        EXPECT_TRUE(run_until([this] {
            const nc_rules_t *rule = rules_.get();
            while (rule != nullptr && !rule->being_checked) {
                rule = rule->next.get();
            }
            return rule == nullptr;
        }));
    }
    std::unique_ptr<nc_rules_t> rules_;
};

} // namespace

TEST_F(DeviceTest, ReadsWhatNcSays) {
    const std::string host = "h:7";
    const struct {
        const char *output;
        int fails;
        std::vector<std::string> log;
        bool connected;
        int fail_count;
    } cases[] = {
        {"", 1, {sent, up + host}, true, 0},
        {"printf 'hello\\n'", 1, {sent, up + host, sent}, true, 0},
        {"echo 'nc: no'", 1, {down + host, sent, first + host, sent}, false, 1},
        {"echo 'nc: no'", 2, {down + host, sent}, false, 1},
        {"echo 'nc: no'; echo 'nc: no'", 2, {down + host, down + host, sent, sent}, false, 2},
        {"echo 'nc: no'; echo hello", 2, {down + host, sent, up + host, sent}, true, 0},
        // One line, however long.
        {"printf 'nc: %0200d\\n' 0", 2, {down + host, sent}, false, 1},
    };
    for (const auto &c : cases) {
        install_tool("nc", std::string("cat > /dev/null\n") + c.output + "\nexit 1\n");
        load("h", 7, c.fails);
        EXPECT_EQ(run(), c.log) << c.output;
        EXPECT_EQ(rules_->connected, c.connected) << c.output;
        EXPECT_EQ(rules_->fail_count, c.fail_count) << c.output;
        EXPECT_EQ(rules_->checks_total, 1U) << c.output;
    }
    install_tool("nc", "cat > /test/input; echo \"$*\" > /test/arguments\n");
    load("web", 80);
    run();
    const std::string probe = read_file("/test/input");
    EXPECT_EQ(probe.size(), 180U);
    EXPECT_EQ(probe.find("GET / HTTP/1.1\r\nAccept: "), 0U);
    EXPECT_EQ(read_file("/test/arguments"), "-w 4 web 80\n");
}

TEST_F(DeviceTest, BelievesPingsStatusAndTcptestsSilence) {
    install_tool("ping", "exit 1\n");
    load("h", nc_port_icmp);
    EXPECT_EQ(run(), (std::vector<std::string>{sent, first + "h (ICMP)", down + "h"}));
    EXPECT_EQ(run(), (std::vector<std::string>{sent, down + "h"}));
    EXPECT_EQ(rules_->fails_total, 2U);
    install_tool("ping", "exit 0\n");
    EXPECT_EQ(run(), (std::vector<std::string>{sent, up + "h"}));
    install_tool("ping", "kill -9 $$\n");
    EXPECT_EQ(run()[0], "ERR (vdrl_device_test:#, errno: None) [nfd]: Unsuccessful command: ping "
                        "\"h\" 2>&1");
    install_tool("ping", "exec sleep 1000\n");
    for (int i = 0; i < 12; ++i) { // one that does not end is ended
        vdrl_dt_run(rules_.get(), serial);
    }
    EXPECT_EQ(run().size(), 3U);
    EXPECT_EQ(rules_->checks_total, 5U);
    install_tool("/usr/bin/tcptest", "exit 1\n");
    load("h", 80);
    EXPECT_EQ(run(), (std::vector<std::string>{sent, up + "h:80"}));
    install_tool("/usr/bin/tcptest", "echo\n");
    EXPECT_EQ(run(), (std::vector<std::string>{sent, first + "h:80", down + "h:80"}));
}

TEST_F(DeviceTest, CountsInListOrderWhoeverAnswersFirst) {
    constexpr int hosts = 50; // more than run at once
    std::string records;
    std::vector<std::string> expected; // host 7 is removed while it is checked, host 9 renamed
    for (int i = 0; i < hosts; ++i) {
        const std::string host = "h" + std::to_string(i);
        records += record(host, nc_port_icmp);
        if (i != 7) {
            expected.push_back(up_of(i == 9 ? "new" : "n") + host);
        }
    }
    write_file(rules_file, records);
    install_tool("/usr/local/packages/Vandrel/remove_nc_rule.sh", "");
    install_tool("/usr/local/packages/Vandrel/define_nc_rule.sh", "");
    install_tool("ping", "[ $1 != h0 ] || until [ -e /test/go ]; do sleep 0.01; done\n"
                         "echo >> /test/ended\n");
    rules_ = vdrl_dt_rules_read_from_file();
    const int descriptors = open_descriptors();
    log_capture log;
    vdrl_dt_run(rules_.get(), serial);
    EXPECT_TRUE(run_until([] { return read_file("/test/ended").size() == hosts - 1; }));
    log.clear();
    vdrl_dt_run(rules_.get(), serial); // starts nothing: all are being checked
    EXPECT_TRUE(vdrl_dt_rule_remove(rules_, serial, "h7", -1));
    vdrl_dt_rule_add(rules_, serial, "h7", -1, 100, 1, "n"); // is another rule, at the list's head
    vdrl_dt_rule_add(rules_, serial, "h9", -1, 100, 1, "new");
    write_file("/test/go", "");
    finish();
    std::vector<std::string> results = log.texts();
    std::erase_if(results, [](const std::string &line) { return !line.starts_with("INFO"); });
    EXPECT_EQ(results, expected);
    EXPECT_EQ(rules_->checks_total, 0U);
    EXPECT_EQ(read_file("/test/ended").size(), hosts);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(zombie_children(), 0);
}

TEST_F(DeviceTest, CompletesARecordFromItsLastLine) {
    write_file(rules_file, "x\nN:a\nP:5\nT:0\nF:2\nL:" + std::string(47, 'y') + "\nN:b\nP:-1\nT:9");
    log_capture log;
    const auto rules = vdrl_dt_rules_read_from_file();
    ASSERT_TRUE(rules && rules->next);
    EXPECT_EQ(rules->nc_name, std::string(47, 'y'));
    EXPECT_EQ(rules->timer, 0U);
    EXPECT_EQ(rules->next->nbr_of_fails, 9);
    EXPECT_EQ(rules->next->nc_name, "9");
    int missing = 0;
    for (const std::string &line : log.texts()) {
        missing += line == "ERR (vdrl_device_test:#, errno: None) fgets returned NULL" ? 1 : 0;
    }
    EXPECT_EQ(missing, 2);
}

// Each counter in its column, and a name that is no formula and no two cells.
TEST_F(DeviceTest, IsARowOfTheSession) {
    const std::string folder = "/tmp/session/system_monitoring/monitoring_devicetest/";
    fs::create_directories(folder);
    load("10.0.0.7", 8080, 4);
    rules_->timer = 6;
    rules_->checks_total = 21;
    rules_->fails_total = 5;
    rules_->fail_count = 2;
    rules_->connected = true;
    for (const char *name : {"=1+1,hall", "lobby"}) {
        rules_->nc_name = name;
        nc_rules = std::move(rules_);
        create_nc_snapshot("/tmp/session");
        rules_ = std::move(nc_rules);
    }
    const std::string text =
        std::regex_replace(read_file(folder + "devicetest_snapshots.csv"),
                           std::regex("\\d{4}-\\d\\d-\\d\\d,\\d\\d:\\d\\d:\\d\\d"), "D,T");
    EXPECT_EQ(text, "date,time,name,address,port,interval,total_pings,total_ping_fails,"
                    "consecutive_fails,fail_threshold,connected_status\r\n"
                    "D,T, =1+1 hall,10.0.0.7,8080,6,21,5,2,4,1\r\n"
                    "D,T,lobby,10.0.0.7,8080,6,21,5,2,4,1\r\n");
}
