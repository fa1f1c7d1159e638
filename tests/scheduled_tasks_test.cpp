#include "scheduled_tasks.h"

#include "action_reply.h"
#include "app_state.h"
#include "log_capture.h"
#include "paramsetter.h"
#include "sandbox.h"
#include "strutil.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

namespace {

const std::string folder = "/usr/local/packages/Vandrel/localdata/";
const std::string restart_interval_file = folder + "automatic_restart_interval.info";
const std::string restart_times_file = folder + "automatic_restart_times.info";
const std::string ptz_interval_file = folder + "automatic_PTZ_test_interval.info";
const std::string ptz_times_file = folder + "automatic_PTZ_test_times.info";

class ScheduledTasks : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(folder);
        for (const auto &file : {restart_interval_file, restart_times_file, ptz_interval_file,
                                 ptz_times_file, folder + "parameters.txt"}) {
            fs::remove_all(file);
        }
        automatic_restart_given_times.reset();
        ptz_test_given_times.reset();
        read_scheduled_tasks();
        timer_count = 100;
        install_recorder("/sbin/reboot");
        install_recorder("dbus-send");
        recorded_calls();
    }
};

std::string ask(const std::string &rule, const std::string &status, const std::string &argument) {
    return body_of(action_miscellaneous, query("rule=" + rule + "&status=" + status +
                                               (argument == "-" ? "" : "&argument=" + argument)));
}

} // namespace

TEST_F(ScheduledTasks, SetsAndStopsAsAsked) {
    log_capture log;
    const std::string not_specified = "Error: argument not specified.\r\n";
    const std::string too_short = "Too short interval set (must exceed 2 minutes)\r\n";
    const std::string unknown = "Error: Status unknown, no action.\r\n";
    const std::string no_address = "Error: no address given.\r\n";
    const std::string restart_set = "Automatic restart rule has been set.\r\n";
    const std::string ptz_set = "Automatic PTZ test has been set.\r\n";
    const std::string ptz_times_set = "PTZ test rule has been set.\r\n";
    const char *restart = "automatic_restart";
    const char *ptz = "automatic_ptz_test";
    const struct {
        std::string rule, status, argument, reply, logged;
    } cases[] = {
        {restart, "start", "5", unknown, ""},
        {restart, "stop", "-", unknown, ""},
        {restart, "set_interval", "-", not_specified, ""},
        {restart, "set_interval", "2", too_short, ""},
        {restart, "set_interval", "-1", too_short, ""},
        {restart, "set_interval", "", too_short, ""},
        {restart, "set_interval", "soon\n\"", too_short, ""},
        {restart, "set_times", "8:00,24:00,08:60,noon", not_specified, ""},
        {restart, "set_times", "", not_specified, ""},
        {restart, "set_times", "08:00," + std::string(10'000, 'x'), not_specified, ""},
        {restart, "set_interval", "3", restart_set, "Started Automatic Restart: Every 0 hours."},
        {restart, "set_interval", "125", restart_set,
         "Updated Automatic Restart Interval: Every 2 hours."},
        {restart, "set_times", "08:00\"x", restart_set, "Started Automatic Restart Times: 08:00"},
        {restart, "set_times", "08:00,2\"x", restart_set,
         "Updated Automatic Restart Times: 08:00,2\"x"},
        {ptz, "set_interval", "9223372036854775808", ptz_set,
         "Started automatic PTZ test: Every 153722867280912930 hours."},
        {ptz, "set_interval", "60x", ptz_set,
         "Updated automatic PTZ test interval: Every 1 hours."},
        {ptz, "set_times", "23:59", ptz_times_set, "Started PTZ Test Times: 23:59"},
        {ptz, "set_times", "00:00,x", ptz_times_set, "Updated PTZ Test Times: 00:00,x"},
        // The restart's interval is named here, and its count starts anew: known behaviour.
        {ptz, "stop", "-", "Automatic PTZ test has been stopped.\r\n",
         "Stopped automatic PTZ testing: Every 2 hours."},
        {ptz, "stop", "-", "PTZ test rule at given times has been stopped.\r\n",
         "Stopped PTZ Times: 00:00,x."},
        {ptz, "stop", "-", unknown, ""},
        {restart, "stop", "-", "Automatic restart rule has been stopped.\r\n",
         "Stopped Automatic Restart: Every 2 hours."},
        {restart, "stop", "-", "Automatic restart rule at given times has been stopped.\r\n",
         "Stopped Automatic Restart Times: 08:00,2\"x."},
        {"syslog_server", "set", "-", no_address, ""},
        {"syslog_server", "set", "host;reboot", no_address, ""},
        {"syslog_server", "start", "-", "", ""},
    };
    for (const auto &one : cases) {
        log.clear();
        EXPECT_EQ(ask(one.rule, one.status, one.argument), one.reply)
            << one.rule << ' ' << one.status << ' ' << one.argument.substr(0, 50);
        EXPECT_EQ(log.texts(), one.logged.empty() ? texts{} : texts{"INFO " + one.logged});
        if (one.status == "set_interval" && one.argument == "125") {
            EXPECT_EQ(starting_tick, 100UL);
            EXPECT_EQ(read_file(restart_interval_file), "T:125\n");
        } else if (one.argument == "08:00\"x") {
            EXPECT_EQ(read_file(restart_times_file), "08:00\"x\n");
        }
    }
    EXPECT_EQ(starting_tick, 0UL);
    for (const auto &file :
         {restart_interval_file, restart_times_file, ptz_interval_file, ptz_times_file}) {
        EXPECT_FALSE(fs::exists(file)) << file;
    }
    EXPECT_EQ(body_of(action_miscellaneous, {}), "Error: rule not specified.\r\n");
    EXPECT_EQ(body_of(action_miscellaneous, {{"rule", restart}}),
              "Error: status not specified.\r\n");
    EXPECT_EQ(body_of(action_miscellaneous, {{"rule", "syslog_server"}}), no_address);
    EXPECT_EQ(reply_of(action_miscellaneous, query("rule=other&status=stop")), "");
    EXPECT_TRUE(recorded_calls().empty());

    // What can't be stored is still done.
    log.clear();
    fs::create_directory(restart_interval_file);
    EXPECT_EQ(ask(restart, "set_interval", "5"), restart_set);
    EXPECT_TRUE(automatic_restart_interval);
    EXPECT_EQ(log.texts()[0], "WARNING (errno: Is a directory) Could not open file '" +
                                  restart_interval_file + "'");
}

TEST_F(ScheduledTasks, ReadsBackWhatIsThere) {
    const struct {
        std::string interval, times;
        bool active;
        unsigned long length;
        std::string given;
    } cases[] = {
        {"T:10\nT:20\n", "08:00,20:30\nmore", true, 20, "08:00,20:30"},
        {"noise T:7 minutes", "", true, 7, "None"},
        {"T:0\n", "\n", false, 0, ""},
        {"T:", std::string(5'000, '1'), false, 0, std::string(4'096, '1')},
        {std::string(10'000, '\0') + "T:5", "a\0b", false, 0, "a"},
    };
    for (const auto &one : cases) {
        write_file(ptz_interval_file, one.interval);
        write_file(ptz_times_file, one.times);
        ptz_test_given_times.reset();
        read_scheduled_tasks();
        EXPECT_EQ(ptz_test_interval, one.active);
        EXPECT_EQ(ptz_nbr_of_ticks_until_activation, one.length);
        EXPECT_EQ(ptz_test_given_times.value_or("None"), one.given);
    }
    EXPECT_FALSE(automatic_restart_interval);
    EXPECT_FALSE(automatic_restart_given_times);
}

TEST_F(ScheduledTasks, ServicesGetTheirFirstSettingsBack) {
    const std::string device = "/etc/tvparameter/parameters.conf";
    const std::string file = folder + "parameters.txt";
    const auto both = [](const char *ssh, const char *ftp) {
        return format_text("root.Network.SSH.Enabled=%s\nroot.Network.FTP.Enabled=%s\n", ssh, ftp);
    };
    write_file(device, both("no", "maybe not"));
    const std::unique_ptr<TVParameter, deleter<tv_parameter_free>> handle(
        tv_parameter_new("Vandrel", nullptr));
    std::string ssh, ftp;
    store_SSH_FTP_settings(handle.get(), ssh, ftp);
    activate_SSH_FTP(handle.get());
    EXPECT_EQ(read_file(device), both("yes", "yes"));
    EXPECT_EQ(read_file(file), "SSH:no\nFTP:maybe not\n");
    store_SSH_FTP_settings(handle.get(), ssh, ftp);
    restore_SSH_FTP_settings(handle.get(), ssh, ftp);
    EXPECT_EQ(read_file(device), both("no", "maybe not"));

    // A file that has lost its content brings nothing back, and changes nothing.
    for (const std::string &content : {std::string(), std::string("SSH:"), std::string(99, '\0')}) {
        write_file(file, content);
        store_SSH_FTP_settings(handle.get(), ssh, ftp);
        restore_SSH_FTP_settings(handle.get(), ssh, ftp);
    }
    EXPECT_EQ(read_file(device), both("no", "maybe not"));
    // With nothing to ask, nothing is remembered for good.
    fs::remove(file);
    log_capture log;
    store_SSH_FTP_settings(nullptr, ssh, ftp);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(log.texts()[0], "WARNING Could not get status of root.Network.SSH.Enabled.");
}
