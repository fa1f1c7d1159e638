#include "app_state.h"
#include "koral_cgi_monitoring.h"
#include "log_capture.h"
#include "sandbox.h"
#include "session_globals.h"
#include "vdrl_http_log.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

namespace {

class Koral : public testing::Test {
  protected:
    void SetUp() override {
        install_tool("/usr/bin/tail", "exec /host/usr/bin/tail \"$@\"");
        write_file(http_log_path, "");
        fs::create_directories(koral_folder + "/logfiles");
        fs::create_directories(koral_folder + "/others");
        fs::create_directories(session + "/system_monitoring/monitoring_basic");
        set_http_edge_storage(session);
        monitory_active = true;
        koral_cgi_monitor_setup();
    }
    void TearDown() override { koral_cgi_monitor_release(); }

    std::string of(const std::string &file) const { return read_file(koral_folder + "/" + file); }
    std::string kept_log() const {
        return read_file(session + "/system_monitoring/monitoring_basic/HTTP_log.txt");
    }

    const std::string session = fresh_folder();
    const std::string koral_folder = session + "/system_monitoring/monitoring_koral";
    log_capture log;
};

std::string line_of(const std::string &user, const std::string &path, int ms = 5) {
    return "[21/Nov/2026:07:42:00 +0000] IPAddress:192.168.0.1 User:" + user + "  \"GET " + path +
           " HTTP/1.1\" Process Time:" + std::to_string(ms) + "ms HTTP Status:200";
}

void take(const std::string &line) {
    parse_koral_line(line.c_str());
    koral_write_lines();
}
void call(const std::string &user, const std::string &path, int ms = 5) {
    take(line_of(user, path, ms));
}

// "USER@PATH COUNT" of the report's items, sorted.
texts counts() {
    const std::string report = koral_output_state_of_the_table();
    texts found;
    std::size_t at = report.find("Total statistics");
    while ((at = report.find("URL: ", at)) != std::string::npos) {
        const auto user = report.find("    User:", at);
        const auto end = report.find("\r\n    Called ", user);
        found.push_back(report.substr(user + 9, end - user - 9) + "@" +
                        report.substr(at + 5, user - at - 5) + " " +
                        std::to_string(std::atoi(report.c_str() + end + 13)));
        at = end;
    }
    std::sort(found.begin(), found.end());
    return found;
}

} // namespace

TEST_F(Koral, CountsWhatDiffersOnlyInChangingArgumentsAsOneCall) {
    const std::pair<const char *, const char *> cases[] = {
        {"/tarvo-cgi/param.cgi?action=list&timestamp=1", "/tarvo-cgi/param.cgi?action=list"},
        {"/tarvo-cgi/param.cgi?action=list&timestamp=2&x=1", "/tarvo-cgi/param.cgi?action=list"},
        {"/tarvo-cgi/a.cgi?timestamp=2", "/tarvo-cgi/a.cgi?"},
        {"/tarvo-cgi/b.cgi?recordingid=7", "/tarvo-cgi/b.cgi?"},
        {"/tarvo-cgi/c.cgi?x=1&profile=7", "/tarvo-cgi/c.cgi?x=1&"},
        {"/tarvo-cgi/d.cgi?x=1&_=99", "/tarvo-cgi/d.cgi?x=1"},
        {"/tarvo-media/e?_=99", "/tarvo-media/e?"},
    };
    for (const auto &[path, key] : cases) {
        call("root", path);
    }
    take("GET /tarvo-cgi/f.cgi\" no user, no time");
    take("User: ");
    take("");
    take("\"GET /local/page HTTP/1.1\"");
    EXPECT_EQ(
        counts(),
        (texts{"NULL@/tarvo-cgi/f.cgi 1", "root@/tarvo-cgi/a.cgi? 1", "root@/tarvo-cgi/b.cgi? 1",
               "root@/tarvo-cgi/c.cgi?x=1& 1", "root@/tarvo-cgi/d.cgi?x=1 1",
               "root@/tarvo-cgi/param.cgi?action=list 2", "root@/tarvo-media/e? 1"}));
}

TEST_F(Koral, ReportsTimesAndFrequencies) {
    for (const int ms : {80, 8, 16, 24, 32, 40, 48, 56, 64, 72}) {
        call("root", "/tarvo-cgi/a.cgi", ms);
    }
    call("operator", "/tarvo-cgi/b.cgi", 7);
    parameters.reset(tv_parameter_new("Vandrel", nullptr));
    const std::string report = koral_output_state_of_the_table();
    const std::string bar(17, '=');
    for (const std::string &text : {
             bar + " KORAL Monitoring " + bar + "\r\nProduct model: ",
             bar + " Top most frequently called " + bar +
                 "\r\n1. URL: /tarvo-cgi/a.cgi    User:root"
                 "\r\n    Called 10 times during the interval: ",
             std::string("2. URL: /tarvo-cgi/b.cgi    User:operator\r\n    Called 1 times"),
             "\r\n\r\n" + bar + " Total statistics " + bar + "\r\n\r\nURL: ",
             // The last seven, and the first one, which stays: (72+64+56+48+40+32+24+80) / 8
             std::string("    Process time:    Max:80 ms    Min:8 ms    Average:52.000 ms\r\n"),
             std::string("    Process time:    Max:7 ms    Min:7 ms    Average:7.000 ms\r\n"),
             std::string(
                 "    Average call frequency:    1.000000 per second    60.000000 per minute"
                 "    3600.000000 per hour\r\n"),
         }) {
        EXPECT_NE(report.find(text), std::string::npos) << text << "\nin\n" << report;
    }
    koral_output_to_file();
    koral_output_to_file(); // replaces one that nobody may write
    EXPECT_NE(of("koral_status.txt").find("Called 10 times"), std::string::npos);
    EXPECT_EQ(fs::status(koral_folder + "/koral_status.txt").permissions(), fs::perms(0444));
}

TEST_F(Koral, TracksSoManyCallsAndNoMore) {
    const texts reached = {"INFO KORAL CGI monitoring: No more new incoming koral calls will be "
                           "tracked, a maximum of 512 different calls have been reached."};
    for (int i = 1; i <= 513; ++i) {
        call("root", "/tarvo-cgi/" + std::to_string(i));
        ASSERT_EQ(log.texts(), i < 512 ? texts{} : reached) << i;
    }
    EXPECT_EQ(counts().size(), 512U);
}

TEST_F(Koral, KeepsLinesInTheSessionsFiles) {
    const std::string get = line_of("root", "/tarvo-cgi/param.cgi?action=list&group=a");
    const std::string ptz = line_of("root", "/tarvo-cgi/com/ptz.cgi?pan=1");
    const std::string other = line_of("root", "/index.html");
    for (const std::string &line : {get, ptz, other, get}) {
        take(line);
    }
    EXPECT_EQ(kept_log(), get + "\n" + ptz + "\n" + other + "\n" + get + "\n");
    EXPECT_EQ(of("KORAL_Tester.txt"),
              "/tarvo-cgi/param.cgi?action=list&group=a\n/tarvo-cgi/com/ptz.cgi?pan=1\n"
              "/tarvo-cgi/param.cgi?action=list&group=a\n");
    EXPECT_EQ(list_folder(koral_folder + "/logfiles"),
              (texts{"tarvo-cgi_com_ptz.cgi.log", "tarvo-cgi_param.cgi?action=list.log"}));
    EXPECT_EQ(of("logfiles/tarvo-cgi_param.cgi?action=list.log"), get + get);

    write_file(koral_folder + "/filters.txt", "# none\r\n\r\n");
    EXPECT_EQ(koral_read_user_defined_filters(), 4);
    std::string filters = "# own\r\n\npan=1\r\n";
    for (int i = 100; i < 160; ++i) {
        filters += "filter" + std::to_string(i) + "\n";
    }
    write_file(koral_folder + "/filters.txt", filters);
    EXPECT_EQ(koral_read_user_defined_filters(), 0);
    take(ptz + " filter148 filter149");
    take("filter148");
    take("filter149"); // the 51st
    EXPECT_EQ(of("logfiles/filter148.log"), "filter148");
    EXPECT_EQ(of("logfiles/pan=1.log"), ptz + " filter148 filter149");
    EXPECT_FALSE(fs::exists(koral_folder + "/logfiles/filter149.log"));
    fs::remove(koral_folder + "/filters.txt");
    EXPECT_EQ(koral_read_user_defined_filters(), 2);
    log.clear();

    // A storage that goes, or a file of it, costs its lines and one warning; back, it goes on.
    fs::create_directory(koral_folder + "/logfiles/filter147.log");
    take("filter147");
    take("filter147");
    EXPECT_EQ(log.texts().size(), 1U);
    fs::rename(session, session + ".gone");
    call("root", "/tarvo-cgi/a.cgi");
    EXPECT_EQ(log.texts().size(), 1U);
    EXPECT_FALSE(fs::exists(session));
    fs::rename(session + ".gone", session);
    call("root", "/tarvo-cgi/back.cgi");
    EXPECT_NE(kept_log().find("back.cgi"), std::string::npos);
    koral_cgi_monitor_release();
    EXPECT_EQ(koral_read_user_defined_filters(), 1);
}

TEST_F(Koral, AUserNamesOnlyFilesOfItsFolder) {
    const std::pair<const char *, const char *> cases[] = {
        {"root", "root@root.csv"},
        {"../../x", "_._.._x@_._.._x.csv"},
        {"a&b%c", "a_b_c@a_b_c.csv"},
        {"/etc/passwd", "_etc_passwd@_etc_passwd.csv"},
        {"..", "_.@_..csv"},
        {".tmp", "_tmp@_tmp.csv"},
        {"x\x01\xff\\\"", "x___@x___.csv"},
    };
    for (const auto &[user, file] : cases) {
        call(user, "/tarvo-cgi/a.cgi", 3);
    }
    take("GET /tarvo-cgi/a.cgi");
    call(std::string(33, 'u'), "/tarvo-cgi/a.cgi");
    call("root", "/tarvo-cgi/a.cgi", 5);
    const auto files = [this] {
        return std::distance(fs::recursive_directory_iterator(session), {});
    };
    const auto before = files();
    koral_cgi_store();
    koral_cgi_store();
    texts expected = {"NULL@NULL.csv", std::string(32, 'u') + "@" + std::string(32, 'u') + ".csv"};
    for (const auto &[user, file] : cases) {
        expected.emplace_back(file);
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(list_folder(koral_folder + "/others"), expected);
    EXPECT_EQ(files(), before + static_cast<std::ptrdiff_t>(expected.size()));
    const std::string rows = of("others/root@root.csv");
    EXPECT_EQ(rows.substr(0, rows.find('\n') + 1),
              "Date, Time, Number of calls since last time stored, Average process time at this "
              "moment (microseconds)\r\n");
    EXPECT_NE(rows.find(",2,3250\r\n"), std::string::npos) << rows;
    EXPECT_NE(rows.find(",0,3250\r\n"), std::string::npos) << rows;
}

TEST_F(Koral, TakesLinesOfAnyLengthFromTheLog) {
    const std::string longest = line_of("root", "/tarvo-cgi/a.cgi?" + std::string(3967, 'x'));
    ASSERT_EQ(longest.size(), 4094U);
    for (int tries = 0; tries < 100 && kept_log().empty(); ++tries) { // until the follower follows
        std::ofstream(http_log_path, std::ios::app) << "first\n";
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::ofstream(http_log_path, std::ios::app)
        << longest << "\n"
        << line_of("root", "/tarvo-cgi/" + std::string(5000, 'y')) << "\n"
        << std::string("a\0b\n", 4) << std::string(1'000'000, 'z') << "\nlast\n";
    ASSERT_TRUE(wait_until([&] { return kept_log().ends_with("last\n"); }));
    EXPECT_TRUE(kept_log().ends_with("first\n" + longest + "\na\nlast\n"));
    EXPECT_EQ(counts(), texts{"root@/tarvo-cgi/a.cgi?" + std::string(1023 - 22, 'x') + " 1"});
}

TEST_F(Koral, StaysWholeWhileLinesComeAndItIsReadAndStored) {
    std::atomic<bool> goes_on = true;
    std::thread lines([&] {
        for (int i = 0; goes_on; ++i) {
            call(i % 2 == 0 ? "root" : "operator", "/tarvo-cgi/" + std::to_string(i % 600));
        }
    });
    for (int i = 0; i < 20; ++i) {
        koral_cgi_store();
        koral_output_to_file();
        koral_cgi_monitor_release();
        set_http_edge_storage(session);
        koral_cgi_monitor_setup();
    }
    goes_on = false;
    lines.join();
    EXPECT_LE(counts().size(), 512U);
}

TEST(HttpLog, IsConfiguredAndRotated) {
    log_capture log;
    fs::remove_all("/etc/apache2");
    EXPECT_FALSE(vdrl_http_log_setup());
    fs::create_directories("/etc/apache2/conf.d");
    EXPECT_TRUE(vdrl_http_log_setup());
    EXPECT_TRUE(vdrl_http_log_is_enabled());
    vdrl_http_log_disable();
    EXPECT_FALSE(vdrl_http_log_is_enabled());
    fs::create_directories("/etc/apache2/conf.d/log.conf"); // can't be replaced
    EXPECT_FALSE(vdrl_http_log_setup());
    EXPECT_EQ(log.texts().front(),
              "INFO HTTP logging: Extended Logging Failed (apache2 not found).");
    EXPECT_EQ(log.texts().back(),
              "ERR (vdrl_http_log:#, errno: Is a directory) HTTP logging: Extended "
              "Logging Failed (could not create config file).");

    install_recorder("/bin/systemctl");
    recorded_calls();
    write_file(http_log_path, std::string(100'000, 'x'));
    vdrl_http_log_rotate(false);
    EXPECT_EQ(recorded_calls(), texts{});
    write_file(http_log_path, std::string(100'001, 'x'));
    std::ofstream server(http_log_path, std::ios::app); // has it open until it is told
    std::thread follower([log = std::ifstream(http_log_path)]() mutable {
        while (fs::exists(http_log_path)) {
            std::this_thread::yield();
        }
        log.close();
    });
    vdrl_http_log_rotate(true);
    follower.join();
    EXPECT_EQ(recorded_calls(), texts{"systemctl kill --signal HUP httpd.service"});
    EXPECT_FALSE(fs::exists(http_log_path));
    server << "late\n" << std::flush;
    EXPECT_EQ(vdrl_http_log_late_lines(), "late\n");
    EXPECT_EQ(vdrl_http_log_late_lines(), "");
}
