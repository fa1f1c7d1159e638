#include "command_limits.h"

#include "log.h"
#include "strutil.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

// A healthy tool on a loaded device stays far below its limit.
constexpr command_limit limits[] = {
    {"", 30s, 0s, "a script of the package, which may have to read a whole index"},
    {"ps ", 5s, 5s, "reads /proc"},
    {"cat /proc/", 5s, 5s, "reads /proc"},
    {"grep ", 5s, 5s, "reads /proc"},
    {"uptime", 5s, 5s, "reads /proc"},
    {"sysctl ", 5s, 0s, "writes /proc; asked at the start and stop of a session"},
    {"kill", 5s, 0s, "sends a signal"},
    {"top ", 10s, 10s, "measures for a second or more"},
    {"ls ", 10s, 10s, "a folder of a storage, which may be a share"},
    {"/bin/df ", 10s, 10s, "asks a file system, which may be a share"},
    {"(echo", 10s, 0s, "a line into a file of a storage"},
    {"dbus-send ", 3s, 0s, "and its own time-out, which a bus that has stopped does not let begin"},
    {"gdbus call ", 28s, 25s, "its own time-out is 25 s"},
    {"gdbus monitor ", 0s, 0s, "runs as long as the daemon does"},
    {"du ", 60s, 60s, "walks over a whole session"},
    {"systemctl ", 60s, 0s, "waits for services to stop and to start"},
    {"/bin/systemctl ", 60s, 0s, "waits for services to stop and to start"},
    {"[ \"$(systemctl", 60s, 0s, "asks the service manager, which may be busy"},
    {"ping ", 30s, 0s, "gives up by itself after ten seconds"},
    {"tcptest ", 10s, 0s, "gives up by itself after four seconds"},
    {": | nc ", 15s, 0s, "five seconds to connect to each address, and five of silence"},
    {"/usr/local/packages/Vandrel/bin_extra/traceroute", 150s, 0s,
     "20 hops of three silent probes of two seconds"},
    {"cat /var/log/", 60s, 0s, "sorts the whole log"},
    {"gen_serverreport.sh", 5min, 5min, "collects all that there is of the device"},
    {"( cd ", 5min, 5min, "packs reports"},
    {"/usr/local/packages/Vandrel/debug_script.sh", 5min, 0s, "a crash report"},
    {"/usr/html/tarvo-cgi/serverreport.cgi", 5min, 5min,
     "collects all that there is of the device"},
    {"/usr/local/packages/Vandrel/monitory_creator.sh", 2min, 0s,
     "flushes a tree of folders to a card that may have much to write"},
    {"/usr/local/packages/Vandrel/collect_monitoring_sessions.sh", 60s, 0s,
     "waits for half a minute for one that runs already"},
    {"/usr/local/packages/Vandrel/wireshark_session.sh", 30min, 0s, "packs a trace and its video"},
    {"/usr/local/packages/Vandrel/update_wireshark_session.sh", 30min, 0s,
     "packs a trace and its video"},
};

std::atomic<unsigned long> ended_at_limit = 0;

std::mutex mutex;
std::map<std::string, clock::time_point, std::less<>> left_out_until; // by tool

std::string_view word_at(std::string_view text, std::string_view mark) {
    const auto at = text.find(mark);
    return at == std::string_view::npos ? std::string_view()
                                        : text.substr(at, text.find(' ', at) - at);
}

// For a client of a service the service counts as the tool, unless even the bus is out of reach.
std::string tool_of(const command_limit &row, std::string_view command) {
    if (row.begin == "du ") {
        return std::string(command); // slow for one large session, not for others
    }
    std::string tool(row.begin.substr(0, row.begin.find_last_not_of(' ') + 1));
    for (const std::string_view mark : {"--dest=", "-d com."}) {
        const std::string_view service = word_at(command, mark);
        tool += service.empty() ? "" : " " + std::string(service);
    }
    return tool;
}

bool is_paused(const std::string &tool, clock::time_point now) {
    const auto found = left_out_until.find(tool);
    return found != left_out_until.end() && now < found->second;
}

} // namespace

command_limit limit_of(std::string_view command) {
    const command_limit *best = &limits[0];
    for (const command_limit &row : limits) {
        if (row.begin.size() >= best->begin.size() && command.starts_with(row.begin)) {
            best = &row;
        }
    }
    command_limit found = *best;
    constexpr std::string_view own = "--reply-timeout=";
    if (const auto at = command.find(own); at != std::string_view::npos) {
        const auto given =
            std::chrono::seconds(decimal_prefix(command.data() + at + own.size()) / 1000);
        found.limit += given;
        found.hung_after += given;
    }
    return found;
}

bool is_left_out(const std::string &command) {
    const command_limit row = limit_of(command);
    if (row.hung_after == 0s) {
        return false;
    }
    const std::lock_guard lock(mutex);
    const auto now = clock::now();
    return !left_out_until.empty() && is_paused(tool_of(row, command), now);
}

unsigned long commands_ended_at_limit() {
    return ended_at_limit;
}

void note_duration(const std::string &command, std::chrono::milliseconds took, bool was_ended) {
    ended_at_limit += was_ended ? 1 : 0;
    const command_limit row = limit_of(command);
    if (row.hung_after == 0s || (!was_ended && took < row.hung_after)) {
        return;
    }
    const std::string tool = tool_of(row, command);
    {
        const std::lock_guard lock(mutex);
        const auto now = clock::now();
        if (is_paused(tool, now)) {
            return;
        }
        std::erase_if(left_out_until, [now](const auto &entry) { return entry.second <= now; });
        left_out_until[tool] = now + command_pause;
    }
    log_warning("'%s' does not answer: it is left out for %d seconds.", tool.c_str(),
                static_cast<int>(command_pause.count()));
}
