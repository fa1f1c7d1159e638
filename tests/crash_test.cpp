// Crash detection, crash reports and kernel dumps, with recording stand-ins for the programs.

#include "advanced_debug.h"
#include "crash_report.h"
#include "crashcatcher_core.h"
#include "crashcatcher_inotify.h"
#include "debug_mode.h"
#include "kernel_crash.h"
#include "kernel_file.h"
#include "log_capture.h"
#include "report_queue.h"
#include "sandbox.h"
#include "session_globals.h"
#include "syslog_triggers.h"
#include "sysutil.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

using texts = std::vector<std::string>;

const std::string root = "/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/";
const std::string session = root + "20230531_08_27_40";
const std::string cores = session + "/coredumps/";
const std::string core_pattern = "/proc/sys/kernel/core_pattern";
const std::string own_pattern = "|/bin/dd of=" + cores + "core.%e.%p.%h.%t";
const std::string standard = "|/usr/sbin/coredump-handler %h_%t_%p.core";
const std::string report_program = "/usr/html/tarvo-cgi/serverreport.cgi";
const std::string script = "/usr/local/packages/Vandrel/debug_script.sh";
const std::string localdata = "/usr/local/packages/Vandrel/localdata/";

class Crash : public testing::Test {
  protected:
    void SetUp() override {
        for (const std::string &path : mounted) {
            ::umount(path.c_str());
        }
        mounted.clear();
        fs::remove_all("/var/spool/storage");
        fs::create_directories(cores);
        fs::create_directories(session + "/system_monitoring/monitoring_basic");
        _set_secondary_storage_path(root);
        _set_storage_id("SD_DISK");
        _set_current_activity_folder("20230531_08_27_40");
        monitory_active = true;
        crash_report_being_created = 0;
        recorded_calls();
    }
    void TearDown() override {
        monitory_active = false;
        EXPECT_EQ(zombie_children(), 0);
    }
    // Until the next test, as a storage is; only there the kernel's dumps are kept.
    static void mount_storage(const std::string &name) {
        const std::string path = "/var/spool/storage/" + name;
        fs::create_directories(path);
        ASSERT_EQ(::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
        mounted.push_back(path);
    }
    static inline texts mounted;
    log_capture log_;
};

void write_core(const std::string &name) {
    write_file(cores + name, "core");
}

} // namespace

TEST_F(Crash, ThePatternIsTurnedAndTurnedBack) {
    const struct {
        std::string before;
        bool set_up;
        std::string after, message;
    } cases[] = {
        {"core\n", true, "core\n", "reset successfully!"},
        {standard + "\n", true, standard + "\n", "reset successfully!"},
        // A run that was killed has left it behind: not to be restored.
        {own_pattern + "\n", true, standard + "\n", "reset successfully!"},
        {own_pattern, false, standard, "restored to standard: " + standard},
    };
    for (const auto &one : cases) {
        const kernel_file file(core_pattern, one.before);
        EXPECT_EQ(core_pattern_is_left_behind(), one.before.starts_with(own_pattern));
        for (int i = 0; one.set_up && i < 2; ++i) { // the second does nothing more
            create_dir_monitor(session);
            EXPECT_EQ(read_file(core_pattern), own_pattern);
        }
        log_.clear();
        inotify_gio_release();
        EXPECT_EQ(read_file(core_pattern), one.after);
        EXPECT_FALSE(core_pattern_is_left_behind());
        EXPECT_EQ(log_.texts(), (texts{"INFO Crash detection: Old core pattern " + one.message,
                                       "INFO Crash detection: Inotify watch removed and closed"}));
    }
}

TEST_F(Crash, WhatCanNotBeSetUpIsSaid) {
    log_.clear();
    {
        const kernel_file file(core_pattern, "");
        create_dir_monitor(session);
        EXPECT_FALSE(get_core_pattern());
        EXPECT_EQ(log_.texts(), texts{"ERR (crashcatcher_core:#, errno: None) Crash detection: "
                                      "Unable to read out current core pattern"});
    }
    const kernel_file file(core_pattern, "core\n");
    fs::remove(cores);
    create_dir_monitor(session); // on an external storage that is not there yet
    EXPECT_EQ(read_file(core_pattern), "core\n");
    // The kernel would cut it.
    const std::string deep = root + std::string(60, 'x');
    fs::create_directories(deep + "/coredumps");
    log_.clear();
    create_dir_monitor(deep);
    EXPECT_EQ(read_file(core_pattern), "core\n");
    EXPECT_EQ(log_.texts(), texts{"ERR (crashcatcher_core:#, errno: File name too long) Crash "
                                  "detection: Unable to set new core pattern"});
    inotify_gio_release();
}

TEST_F(Crash, EachCoreGetsAReport) {
    const kernel_file file(core_pattern, "core\n");
    // Prints its arguments and what it finds open.
    install_tool(report_program, "echo \"report $# $(ls /proc/self/fd | tr '\\n' ' ')\"\n");
    create_dir_monitor(session);
    log_.clear();
    const texts names = {
        "core.streamer.1.camera.7",           "core.a b.2.camera.7",
        "core.a_b;touch x.3.cam_era.7",       "core.$(touch y)`touch y`.4.camera.7",
        "core.\"quoted\" 'twice'.5.camera.7", "core.end_server-report.log.6.camera.7"};
    for (const std::string &name : names) {
        write_core(name);
    }
    write_core("core.7.camera_server-report.log");
    write_core(".tmp_vmcore.elf.lzo"); // a kernel dump that is being copied
    ASSERT_TRUE(run_until([&] { return log_.texts().size() == names.size(); }));
    for (const std::string &name : names) {
        EXPECT_EQ(read_file(cores + name + "_server-report.log"), "report 0 0 1 2 3 \n") << name;
    }
    EXPECT_EQ(list_folder(cores).size(), 2 * names.size() + 2);
    EXPECT_FALSE(fs::exists("x") || fs::exists("y"));
    EXPECT_EQ(log_.texts()[0], "INFO Crash detected: Server report saved");

    install_tool(report_program, "exit 3\n");
    log_.clear();
    write_core("core.failed");
    ASSERT_TRUE(run_until([&] { return !log_.texts().empty(); }));
    EXPECT_EQ(log_.texts()[0], "ERR (crashcatcher_inotify:#, errno: None) Crash detected: Failed "
                               "to save server report");
    // One that hangs holds nobody; at the session's end it is ended, with those behind it.
    install_tool(report_program, "echo begun; sleep 1000\n");
    log_.clear();
    write_core("core.hung");
    write_core("core.behind");
    ASSERT_TRUE(run_until([&] {
        return fs::exists(cores + "core.hung_server-report.log") &&
               read_file(cores + "core.hung_server-report.log") == "begun\n";
    }));
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    report_queue_finish(std::chrono::milliseconds::zero());
    EXPECT_EQ(log_.texts().size(), 3U);
    EXPECT_FALSE(fs::exists(cores + "core.behind_server-report.log"));
    monitory_active = false;
    write_core("core.without.a.session");
    write_core(std::string(255, 'c'));
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    EXPECT_FALSE(fs::exists(cores + "core.without.a.session_server-report.log"));
    inotify_gio_release();
}

TEST_F(Crash, ReportsAreMadeByTheScript) {
    // It has no descriptor but those that it opens itself.
    install_tool(script, "ls -l /proc/$$/fd 2>/dev/null >&2; exec >/test/script 2>&1 </dev/null\n"
                         "echo \"$1\"; for n in 2 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$n ] && echo "
                         "open $n; done; exit 0\n");
    EXPECT_TRUE(create_crash_report_snapshot());
    EXPECT_EQ(crash_report_being_created, 1);
    const std::string told = read_file("/test/script");
    const std::string reports = session + "/system_monitoring/monitoring_basic/Crash_Reports";
    EXPECT_EQ(told.substr(0, reports.size() + 7), reports + "/Debug_") << told;
    EXPECT_EQ(told.substr(told.find('\n')), "\nopen 2\n");
    EXPECT_TRUE(fs::is_directory(reports));

    log_.clear();
    crash_report_being_created = 0;
    for (const char *end : {"kill -9 $$\n", "exit 1\n"}) {
        install_tool(script, end);
        EXPECT_FALSE(create_crash_report_snapshot());
    }
    fs::remove(script);
    EXPECT_FALSE(create_crash_report_snapshot());
    EXPECT_EQ(crash_report_being_created, 0);
    ASSERT_EQ(log_.texts().size(), 3U);
    EXPECT_TRUE(log_.texts()[0].ends_with(".tgz' was killed."));
    EXPECT_TRUE(log_.texts()[1].ends_with(".tgz' ended with status 1."));
    EXPECT_EQ(log_.texts()[2], "ERR (crash_report:#, errno: No such file or directory) "
                               "crash_report_snapshot Execve failed.");
    fs::remove_all(root);
    log_.clear();
    (void)create_crash_report_snapshot(); // nothing is made in an empty mount point
    EXPECT_FALSE(fs::exists(root));
    _set_current_activity_folder(std::nullopt);
    EXPECT_FALSE(create_crash_report_snapshot());
    EXPECT_EQ(log_.texts().size(), 1U);
}

TEST_F(Crash, ReportsComeOnScheduleAndAreWatched) {
    install_recorder(script);
    install_recorder("ps");
    advanced_debug_mode_crash_recurrence = 3;
    advanced_debug_mode_crash_recurrence_tick = 0;
    int made = 0;
    for (int tick = 0; tick < 7; ++tick) {
        recorded_calls();
        advanced_debug_tick(session);
        for (const std::string &call : recorded_calls()) {
            made += call.starts_with("debug_script.sh") ? 1 : 0;
        }
        EXPECT_EQ(made, tick / 3 + 1) << tick;
    }
    // One every minute does not hide that the generator hangs.
    install_recorder("ps", "99999999 root dcore -c /dev/stdout 12\n");
    advanced_debug_mode_crash_recurrence = 1;
    crash_report_being_created = 0;
    for (int tick = 0; tick < 11; ++tick) {
        log_.clear();
        advanced_debug_tick(session);
    }
    EXPECT_TRUE(log_.texts()[0].ends_with("freezed for 10 minutes. Will stop it."));
    advanced_debug_mode_crash_recurrence = 0;
    advanced_debug_mode_crash_log_message_activated = true;

    // The count rises to 3 while the generator runs, and needs as many quiet minutes.
    crash_report_being_created = 1;
    std::vector<int> counts;
    for (int tick = 0; tick < 8; ++tick) {
        const std::string size = std::to_string(tick);
        install_recorder("ps", "  4711 root " + (tick < 4 ? size + " dcore -c /dev/stdout 12\n"
                                                          : "    grep dcore\n"));
        log_.clear();
        advanced_debug_tick(session);
        EXPECT_EQ(log_.texts(),
                  tick == 6 ? texts{"INFO Advanced Debug Mode: Generating Crash Report finished."}
                            : texts{});
        counts.push_back(crash_report_being_created);
    }
    EXPECT_EQ(counts, (std::vector<int>{2, 3, 3, 3, 2, 1, 0, 0}));
    advanced_debug_mode_crash_log_message_activated = false;
}

TEST_F(Crash, AGeneratorThatHangsIsKilled) {
    const std::string process = "99999999"; // no system has so many
    const struct {
        std::string line; // "#" stands for the minute
        bool killed;
    } cases[] = {
        {"  " + process + " root  # dcore -c /dev/stdout 1", false}, // it changes
        {"    0 root  dcore -c /dev/stdout 1", false},
        {"   -1 root  dcore -c /dev/stdout 1", false},
        {"dcore-c/dev/stdout dcore -c /dev/stdout", false},
        {process + "x root dcore -c /dev/stdout " + std::string(300, 'l'), false},
        {"  " + process + " root  dcore -c /dev/stdout 1 " + std::string(90, 'l'), true},
    };
    for (const auto &one : cases) {
        log_.clear();
        for (int minute = 0; minute < 10; ++minute) {
            std::string line = one.line + "\n";
            std::replace(line.begin(), line.end(), '#', static_cast<char>('0' + minute));
            install_recorder("ps", line);
            crash_report_being_created = 3;
            advanced_debug_crash_report_check();
        }
        EXPECT_EQ(log_.texts(), one.killed ? texts{"INFO Advanced Debug Mode: dcore "
                                                   "generating crash report for PID: " +
                                                   process +
                                                   " noted to be freezed for 10 minutes. "
                                                   "Will stop it."}
                                           : texts{})
            << one.line;
        install_recorder("ps", "  1 other dcore -c /dev/stdout\n");
        advanced_debug_crash_report_check(); // starts the comparison anew
        install_recorder("ps", "  2 other dcore -c /dev/stdout\n");
        advanced_debug_crash_report_check();
    }
}

TEST_F(Crash, KernelDumpsAreCopiedOnce) {
    const std::string dumps = "/var/spool/storage/SD_DISK/dumps/";
    const std::string listing = localdata + "kernel_crash_listing_sd_card.txt";
    const std::string flag = "/lib/persistent/.ENABLE_KERNEL_CRASHDUMPS";
    const std::optional<std::string> serial = "A1B2C3D4E5F6";
    fs::remove(listing);
    install_tool("sysctl", "[ \"$1\" = -w ] && echo \"${2#*=}\" >/test/crashdump\n"
                           "echo \"debug.crashdump = $(cat /test/crashdump)\"\n");
    write_file("/test/crashdump", "none\n");
    for (const char *name : {"one.elf.lzo", "two.elf.lzo", "note.txt"}) {
        write_file(dumps + name, name);
    }
    EXPECT_FALSE(kernel_crash_enabled());
    EXPECT_EQ(setup_kernel_crash_monitor(session, serial), 0);
    EXPECT_FALSE(kernel_crash_enabled()) << "no storage is mounted";
    mount_storage("SD_DISK");
    EXPECT_EQ(setup_kernel_crash_monitor(session, serial), 0);
    EXPECT_TRUE(kernel_crash_enabled());
    EXPECT_TRUE(fs::exists(flag));
    EXPECT_FALSE(fs::exists("/etc/sysconfig/crashdump.conf")); // the card was enough
    EXPECT_EQ(read_file(listing), "note.txt,one.elf.lzo,two.elf.lzo");
    update_kernel_crash_status(session, serial);
    EXPECT_TRUE(list_folder(cores).empty());

    log_.clear();
    write_file(dumps + "three.elf.lzo", std::string(3'000'000, 'x'));
    write_file(dumps + "ee.elf.lzo", "its name is part of another's, but not of a known one's");
    write_file(dumps + "wo.elf.lzo", "part of a known one's");
    write_file(dumps + std::string(240, 'l') + ".elf.lzo", "its path is too long");
    for (int minute = 0; minute < 3; ++minute) {
        update_kernel_crash_status(session, serial);
    }
    EXPECT_EQ(list_folder(cores), (texts{"ee.elf.lzo", "three.elf.lzo"}));
    EXPECT_EQ(fs::file_size(cores + "three.elf.lzo"), 3'000'000U);
    ASSERT_EQ(log_.texts().size(), 3U);
    EXPECT_TRUE(log_.texts()[1].ends_with("its path is too long."));
    EXPECT_EQ(log_.texts()[0],
              "INFO Systemlog kernel crash detection: Found new kernel crash archive, ee.elf.lzo, "
              "will copy it to the monitoring session under 'coredumps'.");

    // A copy that does not work is said once and tried again; one beside it is made, once.
    write_file(dumps + "late.elf.lzo", "x");
    write_file(dumps + "fine.elf.lzo", "y");
    fs::create_directory(cores + "late.elf.lzo");
    log_.clear();
    update_kernel_crash_status(session, serial);
    update_kernel_crash_status(session, serial);
    EXPECT_EQ(log_.texts().size(), 4U); // found both, and twice why not
    EXPECT_EQ(read_file(cores + "fine.elf.lzo"), "y");
    fs::remove(cores + "late.elf.lzo");
    update_kernel_crash_status(session, serial);
    EXPECT_EQ(read_file(cores + "late.elf.lzo"), "x");

    // One that does not fit is not even begun.
    write_file(dumps + "huge.elf.lzo", "x");
    fs::resize_file(dumps + "huge.elf.lzo", 1ULL << 42);
    log_.clear();
    for (int minute = 0; minute < 3; ++minute) {
        update_kernel_crash_status(session, serial);
    }
    EXPECT_EQ(log_.texts().size(), 2U); // found, and why not
    EXPECT_FALSE(fs::exists(cores + "huge.elf.lzo"));
    fs::remove(dumps + "huge.elf.lzo");

    EXPECT_EQ(disable_kernel_crash_monitor(serial), 0);
    EXPECT_FALSE(fs::exists(flag));
    EXPECT_FALSE(kernel_crash_enabled());
    // A setting that takes a restart.
    EXPECT_EQ(setup_kernel_crash_monitor(session, serial), 0);
    install_tool("sysctl", "echo \"debug.crashdump = $(cat /test/crashdump)\"\n");
    EXPECT_EQ(disable_kernel_crash_monitor(serial), 1);
    EXPECT_EQ(disable_kernel_crash_monitor(serial), 0); // no flag was left to take away
    write_file("/test/crashdump", "none\n");
    mount_storage("NetworkShare");
    EXPECT_EQ(setup_kernel_crash_monitor(session, serial), 1);
    EXPECT_EQ(read_file("/etc/sysconfig/crashdump.conf"),
              "[Crashdump]\nDiskID = NetworkShare\nPath = dumps_A1B2C3D4E5F6\n");
    EXPECT_EQ(disable_kernel_crash_monitor(std::nullopt), 0);
    EXPECT_TRUE(fs::exists("/etc/sysconfig/crashdump.conf")); // without a serial number it is left

    // A tool that says nothing is no reason to restart a device.
    install_tool("sysctl", "exit 1\n");
    EXPECT_EQ(setup_kernel_crash_monitor(session, serial), 0);

    fs::remove(flag);
    fs::create_directory(flag);
    log_.clear();
    EXPECT_EQ(setup_kernel_crash_monitor(session, std::nullopt), 0);
    EXPECT_EQ(log_.texts()[0], "ERR (kernel_crash:#, errno: Is a directory) Could not enable "
                               "persistent crash catching.");
    fs::remove(flag);
}

TEST_F(Crash, AListingHoldsSoMuch) {
    const std::string dumps = "/var/spool/storage/SD_DISK/dumps/";
    for (int i = 0; i < 200; ++i) {
        write_file(dumps + "dump" + std::to_string(1000 + i) + ".elf.lzo", "x");
    }
    mount_storage("SD_DISK");
    write_file(localdata + "kernel_crash_listing_sd_card.txt", std::string(5'000, 'y') + "\nmore");
    install_tool("sysctl", "echo debug.crashdump = none\n");
    setup_kernel_crash_monitor(session, std::nullopt);
    const auto copied = list_folder(cores).size();
    EXPECT_GT(copied, 50U);
    EXPECT_LT(copied, 70U);
    EXPECT_LE(read_file(localdata + "kernel_crash_listing_sd_card.txt").size(), 1023U);
    update_kernel_crash_status(session, std::nullopt);
    EXPECT_EQ(list_folder(cores).size(), copied);
}
