#include "app_state.h"
#include "log_capture.h"
#include "ntpd.h"
#include "sandbox.h"
#include "vdrl_syslog.h"
#include "vdrl_syslog_continuous.h"
#include "vdrl_syslog_remote.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

namespace {

const std::string package = "/usr/local/packages/Vandrel/";
const std::string copy = "/usr/local/vandrel.log";
const std::string basic = "/var/spool/storage/SD_DISK/session/basic";
const std::string cat = package + "continuous_syslog_cat.sh";

void install_package() {
    const std::string source = std::string(std::getenv("VANDREL_SOURCE")) + "/package/";
    for (const char *file : {"rsyslog_rotate.sh", "conf/rsyslog.conf", "conf/syslog-ng.conf",
                             "conf/logrotate.conf", "common.sh", "continuous_syslog_cat.sh"}) {
        write_file(package + file, read_file(source + file));
        ::chmod((package + file).c_str(), 0755);
    }
}

const std::string rsyslog_file = "/etc/rsyslog.d/40-remote_log.conf";
const std::string syslog_ng_file = "/etc/syslog-ng.d/remote.conf";
const std::string localdata = package + "localdata/";
const std::string info_file = localdata + "syslog_server.info";

const std::string started = "INFO Started Syslog Server: Syslogging to ip-address ";
const std::string stopped = "INFO Stopped Syslog Server: Syslogging to ip-address ";
const texts test_message = {
    "INFO Syslog: Sending Test Message to configured syslog server.",
    "INFO Syslog: This is a test message. The configuration worked if you see this message in your "
    "syslog server!"};

class Syslog : public testing::Test {
  protected:
    void SetUp() override {
        for (const char *folder : {"/etc/rsyslog.d", "/etc/syslog-ng.d", "/etc/logrotate.d"}) {
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

class Continuous : public Syslog {
  protected:
    void SetUp() override {
        Syslog::SetUp();
        install_package();
        install_recorder("logger");
        for (const std::string &path :
             {std::string(continuous_syslog_link), basic, copy, copy + ".1"}) {
            fs::remove_all(path);
        }
        fs::create_directories(basic);
    }

    static void add(const std::string &lines) {
        write_file(copy, (fs::exists(copy) ? read_file(copy) : "") + lines);
    }
    // As it is called before a rotation: nothing is waited for.
    static void take() { EXPECT_EQ(std::system((cat + " " + copy + " written").c_str()), 0); }
    static void rotate() { fs::rename(copy, copy + ".1"); }
    static void start_session() {
        take();
        fs::create_symlink(basic + "/Continuous_Syslog.txt", continuous_syslog_link);
    }
    static std::string taken() { return read_file(basic + "/Continuous_Syslog.txt"); }
};

} // namespace

TEST_F(Syslog, TakesRsyslogWhereBothAreAndLooksOnce) {
    EXPECT_EQ(vdrl_syslog_get_variant(), 2);
    fs::remove_all("/etc/rsyslog.d");
    EXPECT_EQ(vdrl_syslog_get_variant(), 2);
}

TEST_F(Syslog, TakesOnlyWhatCanBeAnAddress) {
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

TEST_F(Syslog, RsyslogForwardsToOneServerAndKeepsTheOtherLines) {
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

TEST_F(Syslog, SyslogNgForwardsToOneServer) {
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

    EXPECT_EQ(vdrl_syslog_remote_setup("fe80::1"), 2);
    EXPECT_TRUE(read_file(syslog_ng_file)
                    .starts_with("destination d_remote-syslog { network(\"fe80::1\" "
                                 "transport(\"udp\") port(514) ip-protocol(6)); };\n"));

    syslog_program_installed = syslog_variant_none;
    EXPECT_EQ(vdrl_syslog_remote_setup("log.example.com"), 0);
}

TEST_F(Continuous, TakesEachLineOnceWhereverItIsRotated) {
    add("before\n");
    start_session();
    add("1\n2\n3");
    take();
    EXPECT_EQ(taken(), "1\n2\n");
    take();
    write_file(copy, read_file(copy) + "\n4\n");
    take();
    add("5\n"); // what the log service still writes
    rotate();
    add("6\n");
    take();
    add("7\n");
    rotate(); // nobody took it before
    take();
    add("8\n");
    EXPECT_EQ(taken(), "1\n2\n3\n4\n5\n6\n7\n");

    // Storage gone: the lines wait.
    fs::rename("/var/spool/storage/SD_DISK/session", "/var/spool/storage/gone");
    add("9\n");
    take();
    rotate();
    add("10\n");
    take();
    fs::rename("/var/spool/storage/gone", "/var/spool/storage/SD_DISK/session");
    take();
    EXPECT_EQ(taken(), "1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n");

    // What belongs to no session is in none.
    fs::remove(continuous_syslog_link);
    fs::remove_all(basic + "/Continuous_Syslog.txt");
    add("between\n");
    start_session();
    rotate();
    take();
    add("second\n");
    take();
    EXPECT_EQ(taken(), "second\n");
    for (const char *damaged : {"", "x y z\n", "99999999999 0\n", "\n\n"}) {
        write_file(package + "localdata/continuous_syslog_position.txt", damaged);
        take();
    }
    EXPECT_TRUE(taken().ends_with("second\n"));
}

TEST_F(Continuous, LeavesWhatIsInstalledAndSaysWhatIsMissing) {
    const struct {
        syslog_variant variant;
        std::string configuration, rotation_source;
    } cases[] = {
        {syslog_variant_rsyslog, "/etc/rsyslog.d/66-vandrel.conf", "rsyslog_rotate.sh"},
        {syslog_variant_syslog_ng, "/etc/syslog-ng.d/vandrel.conf", "conf/logrotate.conf"},
    };
    for (const auto &[variant, configuration, rotation_source] : cases) {
        syslog_program_installed = variant;
        log_capture log;
        vdrl_syslog_subscribe();
        recorded_calls();
        write_file(configuration, "installed before\n");
        vdrl_syslog_subscribe();
        EXPECT_EQ(read_file(configuration), "installed before\n");
        EXPECT_EQ(recorded_calls(), texts{});
        vdrl_syslog_unsubscribe();
        EXPECT_EQ(log.texts(), texts{});
        vdrl_syslog_unsubscribe();
        EXPECT_EQ(log.texts().size(), 1U);
        fs::remove(package + rotation_source);
        vdrl_syslog_subscribe();
        EXPECT_FALSE(fs::exists(configuration));
        EXPECT_EQ(log.texts().size(), 3U);
    }
}

TEST(Ntpd, RunsWithTheOverrideFromStartToStop) {
    const std::string file = "/etc/systemd/system/ntp.service.d/override.conf";
    EXPECT_FALSE(ntpd_service_exists()); // /usr/lib is the host's here, without the service
    fs::create_directories("/etc/systemd/system");
    // Fails where there is a file of the verb's name, and prints it.
    install_tool("systemctl", "echo \"$*\" >>/tmp/calls; ! cat \"/tmp/$1\" 2>/dev/null");
    log_capture log;
    ntpd_service_conf_add();
    EXPECT_EQ(read_file(file), "[Service]\nExecStart=\nExecStart=/usr/sbin/ntpd -d -s -v -f "
                               "/run/ntp/ntpd.conf $NTPD_ARGS\n");
    ntpd_service_conf_add();
    EXPECT_EQ(read_file("/tmp/calls"), "daemon-reload\nis-active --quiet ntp\nrestart ntp\n");
    write_file("/tmp/restart", "");
    write_file("/tmp/daemon-reload", "");
    ntpd_service_conf_remove();
    EXPECT_FALSE(fs::exists("/etc/systemd/system/ntp.service.d"));
    write_file("/tmp/is-system-running", "stopping\n"); // what goes down is not restarted
    fs::remove("/tmp/daemon-reload");
    ntpd_restart_service();
    write_file("/tmp/is-active", "");
    write_file("/var/lib/openntpd/db/ntpd.drift", "-1.5\nmore");
    ntpd_log_drift();
    ntpd_restart_service();
    EXPECT_EQ(log.texts(),
              (texts{"ERR (ntpd:#, errno: None) Could not reload systemd configuration (returned "
                     "1).",
                     "ERR (ntpd:#, errno: None) Could not restart ntp service (returned 1).",
                     "INFO NTPd Drift is -1.5 more (/var/lib/openntpd/db/ntpd.drift)"}));
}
