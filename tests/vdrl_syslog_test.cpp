#include "app_state.h"
#include "log_capture.h"
#include "sandbox.h"
#include "vdrl_syslog.h"
#include "vdrl_syslog_remote.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

namespace {

const std::string rsyslog_file = "/etc/rsyslog.d/40-remote_log.conf";
const std::string syslog_ng_file = "/etc/syslog-ng.d/remote.conf";
const std::string localdata = "/usr/local/packages/Vandrel/localdata/";
const std::string info_file = localdata + "syslog_server.info";

const std::string started = "INFO Started Syslog Server: Syslogging to ip-address ";
const std::string stopped = "INFO Stopped Syslog Server: Syslogging to ip-address ";
const texts test_message = {
    "INFO Syslog: Sending Test Message to configured syslog server.",
    "INFO Syslog: This is a test message. The configuration worked if you see this message in your "
    "syslog server!"};

class SyslogRemote : public testing::Test {
  protected:
    void SetUp() override {
        for (const char *folder : {"/etc/rsyslog.d", "/etc/syslog-ng.d"}) {
            fs::remove_all(folder);
            fs::create_directories(folder);
        }
        fs::create_directories(localdata);
        fs::remove(info_file);
        install_recorder("systemctl");
        recorded_calls();
        current_syslog_server.reset();
    }
};

} // namespace

TEST_F(SyslogRemote, TakesRsyslogWhereBothAreAndLooksOnce) {
    EXPECT_EQ(vdrl_syslog_get_variant(), 2);
    fs::remove_all("/etc/rsyslog.d");
    EXPECT_EQ(vdrl_syslog_get_variant(), 2);
}

TEST_F(SyslogRemote, TakesOnlyWhatCanBeAnAddress) {
    const struct {
        bool rsyslog, syslog_ng;
        texts addresses;
    } cases[] = {
        {true, true, {"192.168.0.1", "log_1.example.com", "2001:db8::1", std::string(191, 'a')}},
        {true, false, {"host:1514", "[2001:db8::1]:514", "[2001:db8::1]"}},
        {false,
         false,
         {"", "a b", "a\"b", "a\nb", "a;b", "@a", "a#", "host:", "host:0", "host:65536",
          "[host]:514", "2001:db8::1::2", ":::", "-a", "%eth0", "fe80::1%\");\n",
          std::string(192, 'a')}},
    };
    for (const auto &[rsyslog, syslog_ng, addresses] : cases) {
        for (const std::string &address : addresses) {
            syslog_program_installed = syslog_variant_rsyslog;
            EXPECT_EQ(vdrl_syslog_remote_is_address(address.c_str()), rsyslog) << address;
            syslog_program_installed = syslog_variant_syslog_ng;
            EXPECT_EQ(vdrl_syslog_remote_is_address(address.c_str()), syslog_ng) << address;
        }
    }
}

TEST_F(SyslogRemote, RsyslogForwardsToOneServerAndKeepsTheOtherLines) {
    syslog_program_installed = syslog_variant_rsyslog;
    log_capture log;
    EXPECT_EQ(vdrl_syslog_remote_setup("192.168.0.1"), 1);
    EXPECT_EQ(read_file(rsyslog_file), "*.* @192.168.0.1\n");
    EXPECT_FALSE(fs::exists(info_file));
    EXPECT_TRUE(recorded_calls().empty()); // the reply leaves first
    EXPECT_TRUE(run_until(
        [] { return recorded_calls() == texts{"systemctl restart rsyslog syslog.socket"}; }));
    EXPECT_EQ(log.texts(), texts{});

    const std::string kept = "# kept\n" + std::string(300, 'k') + "\n*.* action(type=\"omfile\")";
    write_file(rsyslog_file, "*.* @192.168.0.1\n*.* @" + std::string(400, 'x') + "\n" + kept);
    EXPECT_EQ(vdrl_syslog_remote_setup("fe80::1"), 1);
    EXPECT_EQ(read_file(rsyslog_file), kept + "\n*.* @[fe80::1]\n");
    EXPECT_EQ(read_file(info_file), "fe80::1\n");
    EXPECT_TRUE(run_until([&] { return log.texts().size() == 3; }));
    EXPECT_EQ(log.texts(),
              (texts{started + "fe80::1 (using rsyslog).", test_message[0], test_message[1]}));
    log.clear();

    EXPECT_EQ(vdrl_syslog_remote_remove(), 0);
    EXPECT_EQ(read_file(rsyslog_file), kept + "\n");
    EXPECT_FALSE(fs::exists(info_file));
    EXPECT_EQ(vdrl_syslog_remote_remove(), 0);
    EXPECT_EQ(log.texts(), (texts{stopped + "fe80::1 no more.", stopped + "[NULL] no more."}));
    EXPECT_EQ(list_folder(localdata), texts{"felmeddelande.restart"});
    log.clear();

    fs::remove(rsyslog_file);
    EXPECT_EQ(vdrl_syslog_remote_remove(), -1);
    write_file(rsyslog_file, "");
    fs::create_directory(info_file);
    EXPECT_EQ(vdrl_syslog_remote_setup("host"), 0);
    fs::remove(info_file);
    EXPECT_EQ(log.texts(),
              (texts{"WARNING (errno: No such file or directory) Could not open file '" +
                         rsyslog_file + "'",
                     "WARNING (errno: Is a directory) Could not open file '" + info_file + "'"}));
}

TEST_F(SyslogRemote, SyslogNgForwardsToOneServer) {
    syslog_program_installed = syslog_variant_syslog_ng;
    log_capture log;
    EXPECT_EQ(vdrl_syslog_remote_setup("log.example.com"), 2);
    EXPECT_EQ(read_file(syslog_ng_file),
              "destination d_remote-syslog { network(\"log.example.com\" transport(\"udp\") "
              "port(514)); };\nlog { source(s_system); destination(d_remote-syslog); };\n\n");
    EXPECT_EQ(read_file(info_file), "log.example.com\n");
    EXPECT_EQ(recorded_calls(), texts{"systemctl restart syslog-ng syslog.socket"});
    EXPECT_EQ(vdrl_syslog_remote_remove(), 0);
    EXPECT_FALSE(fs::exists(syslog_ng_file));
    EXPECT_FALSE(fs::exists(info_file));
    EXPECT_EQ(log.texts(), (texts{started + "log.example.com (using syslog-ng).", test_message[0],
                                  test_message[1], stopped + "log.example.com no more."}));

    syslog_program_installed = syslog_variant_none;
    EXPECT_EQ(vdrl_syslog_remote_setup("log.example.com"), 0);
}
