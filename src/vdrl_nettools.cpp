#include "vdrl_nettools.h"

#include "fileutil.h"
#include "http.h"
#include "log.h"
#include "shell_word.h"
#include "strutil.h"
#include "sysutil.h"

#include <cerrno>
#include <functional>
#include <utility>

namespace {

constexpr std::size_t ping_command_size = 2048;
constexpr std::size_t command_size = 500;
constexpr std::size_t output_piece = 2047;
constexpr std::size_t tcptest_piece = 199;

// A tool whose reader has gone ends with its next line.
int stream_lines(const std::string &command, GDataOutputStream *stream,
                 const std::function<void(const std::string &)> &take_line) {
    command_pipe pipe(command.c_str());
    std::string line;
    while (pipe.next_line(output_piece, line)) {
        take_line(line);
        if (!http_write(stream, line + "<br>")) {
            break;
        }
    }
    return pipe.close();
}

} // namespace

bool vdrl_nettools_is_argument(const std::string &text, std::size_t size_max) {
    return !text.empty() && text.size() <= size_max && !text.starts_with('-') &&
           is_safe_in_double_quotes(text);
}

int vdrl_nettools_ping(const std::string &address, GDataOutputStream *stream) {
    bool alive = false;
    const int status =
        stream_lines(format_bounded(ping_command_size, "ping \"%s\"", address.c_str()), stream,
                     [&alive](const std::string &line) {
                         alive = alive || line.find("is alive") != std::string::npos;
                     });
    log_info("Network Tools: Ping %s %s", address.c_str(), alive ? "successful" : "failed");
    return status;
}

int vdrl_nettools_traceroute(const std::string &command, GDataOutputStream *stream) {
    bool last_was_silent = false;
    return stream_lines(command, stream, [&last_was_silent](std::string line) {
        str_terminate_at(line, '\n');
        const bool silent = line.find("* * *") != std::string::npos;
        if (!std::exchange(last_was_silent, silent) || !silent) {
            log_info("Traceroute: %s", line.c_str());
        }
    });
}

bool vdrl_nettools_portcheck(const std::string &address, const std::string &port) {
    if (!is_readable("/usr/bin/tcptest")) {
        errno = 0;
        const std::string command =
            format_bounded(command_size, ": | nc -w 5 \"%s\" \"%s\" > /dev/null 2>&1",
                           address.c_str(), port.c_str());
        // nc's own limit is one of silence: with a host that keeps talking it never ends.
        return system_ret(command.c_str()) == 0;
    }
    bool silent = true; // the tool prints only on failure
    const int status = command_read_lines(
        format_bounded(command_size, "tcptest 4 \"%s\" \"%s\" 2>&1", address.c_str(), port.c_str())
            .c_str(),
        tcptest_piece, [&silent](const std::string &line) { silent = silent && line.empty(); });
    return silent && !was_ended_by_signal(status);
}
