// The shipped binary: how it starts, what it answers byte for byte, how it goes down.

#include "daemon_process.h"
#include "sandbox.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *session_file =
    "/usr/local/packages/Vandrel/localdata/current_monitoring_session.txt";
constexpr const char *cache_lines =
    "Pragma: no-cache\r\nCache-Control: no-cache\r\nExpires: -1\r\n";
constexpr const char *routing_type = "Content-Type: text/plain; charset-utf-8;\r\n\r\n";

class Daemon : public testing::Test {
  protected:
    void SetUp() override {
        write_file("/etc/tvparameter/parameters.conf",
                   "root.Properties.System.SerialNumber=A1B2C3D4E5F6\n");
        fs::remove(session_file);
    }
};

int descriptors_of(pid_t pid) {
    return static_cast<int>(list_folder("/proc/" + std::to_string(pid) + "/fd").size());
}

// Everything logged so far: what comes before the self-test's line has arrived when that has.
std::string log_texts(const daemon_process &daemon) {
    access_cgi("action=test&type=mark");
    daemon.wait_for_log("type mismatch.");
    std::string all;
    for (const daemon_log_line &line : daemon.log()) {
        all += std::to_string(line.level) + " " + line.message + "\n";
    }
    return all;
}

} // namespace

TEST_F(Daemon, AnswersTheseBytes) {
    write_file("/var/log/info.log", "2 second\n4 last\n");
    write_file("/var/log/error.log.1", "1 first\n3 third\n");
    const daemon_process daemon;
    const std::string sorted_log = "1 first\n2 second\n3 third\n4 last\n";
    const struct {
        std::string path, query, reply;
    } cases[] = {
        {"/local/Vandrel/other.cgi", "action=test",
         std::string(routing_type) + "Could not find what to do with that path\r\n\r\n"},
        {"/local/Vandrel/access.cgi", "",
         std::string(routing_type) + "{\"error\":\"Missing option\"}"},
        {"/local/Vandrel/access.cgi", "type=warn&Action=test",
         std::string(routing_type) + "{\"error\":\"Missing option\"}"},
        {"/local/Vandrel/access.cgi", "action=reboot_now",
         std::string(routing_type) +
             "{ \"error\": \"Action did not match any installed\"}\r\n\r\n"},
        {"/local/Vandrel/access.cgi", "action=test&type=warn",
         "Status: 200 OK\r\n" + std::string(cache_lines) +
             "Content-Type: text/plain\r\n\r\nCheck the logs now!\r\n"},
        {"/local/Vandrel/access.cgi", "action=instant_log_view",
         "Status: 200 OK\r\nPragma: no-cache\r\nCache-Control: no-cache\r\n"
         "Content-Type: text/plain\r\nExpires: -1\r\n\r\n" +
             sorted_log},
        {"/local/Vandrel/access.cgi", "action=instant_log_view_download",
         "Status: 200 OK\r\n" + std::string(cache_lines) +
             "Content-Description: File Transfer\r\n"
             "Content-Disposition: attachment; filename=\"log_viewer.txt\"\r\n"
             "Content-Type: text/plain\r\n\r\n" +
             sorted_log},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(scgi_get(c.path, c.query), c.reply) << c.path << "?" << c.query;
    }
}

TEST_F(Daemon, TestsItsLogWithEverySeverity) {
    const struct {
        const char *query, *message;
        int level;
    } cases[] = {
        {"&type=warn", "A test warning message!", 4},
        {"&type=error", ", errno: None) A test error message!", 3},
        {"&type=crit", ", errno: None) A test critical message!", 2},
        {"&type=alert", ", errno: None) A test alert message!", 1},
        {"&type=emerg", ", errno: None) A test emergency message!", 0},
        {"&type=Warn", "type mismatch.", 6},
        {"", "type mismatch.", 6},
    };
    int count = 0;
    for (const auto &c : cases) {
        const daemon_process daemon; // the count is the process's own
        for (count = 0; count < 2; ++count) {
            access_cgi(std::string("action=test") + c.query);
            const auto refresher =
                daemon.wait_for_log("Test " + std::to_string(count) + ": refresher message.");
            ASSERT_TRUE(refresher) << c.query;
            EXPECT_EQ(refresher->level, 6);
        }
        const auto line = daemon.wait_for_log(c.message);
        ASSERT_TRUE(line) << c.query;
        EXPECT_EQ(line->level, c.level);
        if (line->message[0] == '(') {
            EXPECT_EQ(line->message.find("(main:"), 0U) << line->message;
        }
    }
}

TEST_F(Daemon, ExtendsAPathWithoutAdministratorsFolders) {
    // What a command of the daemon sees: the log view runs this "cat".
    install_tool("cat", "echo \"$PATH\"\n");
    const struct {
        std::vector<std::string> environment;
        std::string path;
    } cases[] = {
        {{"PATH=/test/bin:/host/usr/bin"},
         "/test/bin:/host/usr/bin:/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin"},
        {{"PATH=/test/bin:/host/usr/bin:/nosbinhere"}, "/test/bin:/host/usr/bin:/nosbinhere"},
    };
    for (const auto &c : cases) {
        const daemon_process daemon(c.environment);
        const std::string reply = access_cgi("action=instant_log_view");
        EXPECT_EQ(reply.substr(reply.find("\r\n\r\n") + 4), c.path + "\n");
    }
    fs::remove("/test/bin/cat");
    const daemon_process daemon({"PATH"});
    EXPECT_TRUE(daemon.wait_for_log("Could not read env var PATH."));
}

TEST_F(Daemon, StartsFreshOrContinuesASession) {
    const std::string continuing =
        "Continuing System Monitoring Session. Device was rebooted or lost power.";
    const std::string unusable = "No monitoring session can be continued";
    const std::string internal = "/usr/local/packages/Vandrel/localdata/";
    const std::string on_card = "/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/";
    const std::string folder = "20230531_08_27_40";
    const struct {
        const char *what;
        std::string text;
        std::string directory; // of the continued session; "" for a fresh start
        std::string warning;
    } cases[] = {
        {"no file", "", "", ""},
        {"nine bytes", "SECS:x\nAC", "", ""},
        {"a card", "SECS:SD_DISK\nACTI:" + folder + "\nTIME:x\nCRAS:60\nCAPT:2\n", on_card + folder,
         ""},
        {"internal", "SECS:my localdata here\nACTI:" + folder + "\n", internal + folder, ""},
        {"any separator, unknown keys, the last line wins, no line end",
         "ACTI:20200101_00_00_00\nSECS SD_DISK\nWHAT:ever\nACTI=" + folder, on_card + folder, ""},
        {"a line of four characters", "SECS\nSECS:SD_DISK\nACTI:" + folder + "\n", on_card + folder,
         "Unexpectedly short line 'SECS' in '" + std::string(session_file) + "'"},
        {"no folder", "SECS:SD_DISK\nTIME:x\n", "", unusable},
        {"a command in the storage", "SECS:x;touch /tmp/run\nACTI:" + folder + "\n", "", unusable},
        {"a way out", "SECS:..\nACTI:" + folder + "\n", "", unusable},
        {"a folder with a command", "SECS:SD_DISK\nACTI:$(touch /tmp/run)\n", "", unusable},
        {"too long", "SECS:" + std::string(90, 'x') + "\nACTI:" + folder + "\n", "", unusable},
        {"noise", std::string(100'000, '\0') + std::string(1'000'000, '\n'), "",
         "Unexpectedly short line"},
    };
    write_file("/var/log/info.log", "2\n");
    write_file("/var/log/error.log", "1\n");
    for (const auto &c : cases) {
        const std::string log_file =
            c.directory + "/system_monitoring/monitoring_basic/Continuous_Syslog.txt";
        if (!c.directory.empty()) {
            write_file(log_file, "0\n");
        }
        if (!c.text.empty()) {
            write_file(session_file, c.text);
        }
        const daemon_process daemon;
        const std::string log = log_texts(daemon);
        if (c.directory.empty()) {
            EXPECT_NE(log.find("6 Vandrel version 4.2.4, compiled: "), std::string::npos)
                << c.what << log;
            EXPECT_EQ(log.find(continuing), std::string::npos) << c.what;
        } else {
            EXPECT_NE(log.find("6 " + continuing), std::string::npos) << c.what << log;
            EXPECT_EQ(log.find("version"), std::string::npos) << c.what;
            EXPECT_TRUE(wait_until([&] { return read_file(log_file) == "0\n1\n2\n"; })) << c.what;
            fs::remove(log_file);
        }
        EXPECT_NE(log.find(c.warning), std::string::npos) << c.what << log;
        EXPECT_LT(std::count(log.begin(), log.end(), '\n'), 200) << c.what;
    }
    EXPECT_FALSE(fs::exists("/tmp/run"));
}

TEST_F(Daemon, LivesOnAfterSigtermOnceAndTwice) {
    const daemon_process daemon;
    for (int i = 0; i < 2; ++i) {
        daemon.signal(SIGTERM);
        // Signals and requests share the main loop; the second answer comes after the clean-up.
        access_cgi("");
        EXPECT_NE(access_cgi("action=test").find("Check the logs now!"), std::string::npos);
        EXPECT_TRUE(daemon.is_alive());
    }
}

TEST_F(Daemon, SurvivesEveryRequest) {
    const daemon_process daemon;
    log_texts(daemon);
    const auto start_lines = static_cast<std::ptrdiff_t>(daemon.log().size());
    const std::string long_argument(100'000, 'x');
    std::string percent_encoded;
    for (int i = 0; i < 100'000; ++i) {
        percent_encoded += "%41";
    }
    const std::string answered = "Check the logs now!";
    for (const std::string &query :
         {"action=test&type=" + long_argument, "action=test&type=" + percent_encoded,
          std::string("action=test&type=%00warn"), std::string("action=test&type=%ff%fe%80"),
          std::string("action=test&type=%zz%"), std::string("action=nothing&action=test"),
          "action=test&" + long_argument}) {
        EXPECT_NE(access_cgi(query).find(answered), std::string::npos) << query.substr(0, 40);
    }
    EXPECT_NE(access_cgi("action=" + long_argument).find("did not match"), std::string::npos);
    EXPECT_NE(access_cgi("action=test%00").find("Missing option"), std::string::npos);
    EXPECT_TRUE(daemon.is_alive());

    // Clients that never end their request hold up nobody, and their noise is answered by closing.
    std::vector<unique_fd> stuck;
    const std::string whole = scgi_request("/local/Vandrel/access.cgi", "action=test");
    for (const std::string &bytes : {whole.substr(0, whole.size() / 2), std::string("9"),
                                     std::string("1000000:") + long_argument, std::string()}) {
        stuck.push_back(scgi_connect());
        send_all(stuck.back(), bytes);
    }
    for (const std::string &noise :
         {std::string("\xff\0\x80garbage", 10), std::string("-5:,"), std::string("0:,"),
          std::string("99999999999999999999:"), std::string("5:a\0b\0c,", 8),
          "9000000:" + std::string(1'000'000, 'x'), std::string("GET / HTTP/1.1\r\n\r\n")}) {
        const unique_fd connection = scgi_connect();
        send_all(connection, noise);
        ::shutdown(connection.get(), SHUT_WR);
        EXPECT_EQ(receive_all(connection), "") << noise.substr(0, 20);
    }
    EXPECT_NE(access_cgi("action=test").find(answered), std::string::npos);

    // Only the self-test's own lines were logged, two for each call.
    const std::string log = log_texts(daemon);
    const auto lines = daemon.log();
    EXPECT_TRUE(std::all_of(lines.begin() + start_lines, lines.end(),
                            [](const daemon_log_line &line) {
                                return line.message.find("refresher") != std::string::npos ||
                                       line.message == "type mismatch.";
                            }))
        << log;
}

TEST_F(Daemon, AClientThatDoesNotReadDelaysTheOthersOnlyForAWhile) {
    write_file("/var/log/info.log", std::string(20'000'000, 'x') + "\n");
    const daemon_process daemon;
    const int descriptors = descriptors_of(daemon.pid());
    const unique_fd connection = scgi_connect();
    send_all(connection, scgi_request("/local/Vandrel/access.cgi", "action=instant_log_view"));
    EXPECT_NE(access_cgi("").find("Missing option"), std::string::npos);
    EXPECT_TRUE(daemon.is_alive());
    // One that goes away in the middle ends its command with it.
    {
        const unique_fd leaving = scgi_connect();
        send_all(leaving, scgi_request("/local/Vandrel/access.cgi", "action=instant_log_view"));
        char piece[4096];
        EXPECT_GT(::recv(leaving.get(), piece, sizeof piece, 0), 0);
    }
    EXPECT_NE(access_cgi("").find("Missing option"), std::string::npos);
    EXPECT_TRUE(wait_until([&] { return descriptors_of(daemon.pid()) <= descriptors; }));
    fs::remove("/var/log/info.log");
}
