// The handling of HTTP log lines, files included, beside goaccess over the same log.
//
//     http_log_bench FOLDER [LINES]
//
// Makes a log of that many lines (200,000) and a session's folders in a folder of its own below
// FOLDER, whose file system counts, and takes it away again. Times are the best of five rounds in
// which the two take turns. Lines come as the follower's thread gets them: as many together as one
// read of its pipe holds.
#include "koral_cgi_monitoring.h"
#include "line_parser.h"
#include "session_globals.h"
#include "support/figures.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

namespace {

void make_log(const fs::path &path, int lines) {
    std::ofstream log(path);
    for (int i = 0; i < lines; ++i) {
        log << "[21/Nov/2026:07:42:" << 10 + i % 50 << " +0000] IPAddress:192.168.0." << i % 100
            << " User:" << (i % 3 == 0 ? "root" : "operator") << "  \"GET /tarvo-cgi/"
            << (i % 4 == 0 ? "com/ptz.cgi?pan=" : "param.cgi?action=list&group=root.G") << i % 200
            << "&timestamp=" << i << " HTTP/1.1\" Process Time:" << i % 90
            << "ms HTTP Status:200\n";
    }
}

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

double handle(const fs::path &log, const fs::path &session) {
    fs::remove_all(session);
    fs::create_directories(session / "system_monitoring/monitoring_basic");
    fs::create_directories(session / "system_monitoring/monitoring_koral/logfiles");
    set_http_edge_storage(session.string());
    koral_cgi_monitor_mend();
    std::ifstream file(log);
    const auto start = clock_type::now();
    std::string line;
    std::size_t together = 0;
    while (std::getline(file, line)) {
        parse_koral_line(line.c_str());
        together += line.size() + 1;
        if (together + line.size() > process_line_max) {
            koral_write_lines();
            together = 0;
        }
    }
    koral_write_lines();
    const double taken = seconds_since(start);
    if (fs::file_size(session / "system_monitoring/monitoring_basic/HTTP_log.txt") !=
        fs::file_size(log)) {
        std::cerr << "lines are missing in the session\n";
        std::exit(1);
    }
    return taken;
}

double goaccess(const fs::path &log) {
    const std::string command =
        "goaccess '" + log.string() +
        R"(' --no-global-config --no-progress --log-format='[%d:%t %^] IPAddress:%h User:%e  "%r" )"
        R"(Process Time:%Lms HTTP Status:%s' --date-format=%d/%b/%Y --time-format=%T -o json )"
        "</dev/null >/dev/null 2>&1";
    const auto start = clock_type::now();
    if (std::system(command.c_str()) != 0) {
        std::cerr << "goaccess does not run\n";
        std::exit(1);
    }
    return seconds_since(start);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::cerr << "usage: http_log_bench FOLDER [LINES]\n";
        return 2;
    }
    const int lines = argc > 2 ? std::atoi(argv[2]) : 200'000;
    const fs::path folder = fs::path(argv[1]) / "http_log_bench";
    fs::create_directories(folder);
    make_log(folder / "log", lines);
    monitory_active = true;
    double own = 1e9;
    double peer = 1e9;
    for (int round = 0; round < 5; ++round) {
        own = std::min(own, handle(folder / "log", folder / "session"));
        peer = std::min(peer, goaccess(folder / "log"));
    }
    fs::remove_all(folder);
    figure("a line of the HTTP log", own / lines * 1e6, "us", "goaccess", peer / lines * 1e6,
           {.ratio = 0.5});
    return 0;
}
