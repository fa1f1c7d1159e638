// The shipped daemon as a child of the test, in the test's private root, with its log read from the
// root's /dev/log and requests sent to its socket as the web server sends them.
#pragma once

#include "handle.h"

#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

// A log datagram's severity (0 to 7) and its text behind the "Vandrel[pid]: ".
struct daemon_log_line {
    int level;
    std::string message;
};

class daemon_process {
  public:
    // Starts it with the environment; "NAME" alone removes a variable. Returns once it answers.
    explicit daemon_process(const std::vector<std::string> &environment = {});
    ~daemon_process(); // SIGKILL
    daemon_process(const daemon_process &) = delete;
    daemon_process &operator=(const daemon_process &) = delete;

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    [[nodiscard]] bool is_alive() const;
    void signal(int number) const;

    std::vector<daemon_log_line> log() const;
    // Waits for a line that holds the text; nothing after a generous limit.
    std::optional<daemon_log_line> wait_for_log(const std::string &text) const;

  private:
    void read_log();

    pid_t pid_ = -1;
    unique_fd log_socket_;
    unique_fd stop_reading_; // write end of a pipe; closed to end the reader
    unique_fd stopped_;
    mutable std::mutex mutex_;
    std::vector<daemon_log_line> lines_; // guarded by mutex_
    std::thread reader_;
};

// An SCGI request as the web server makes it: netstring of headers, no body.
std::string scgi_request(const std::string &path, const std::string &query);

// A connection to the daemon's socket.
unique_fd scgi_connect();
void send_all(const unique_fd &connection, const std::string &bytes);
// Everything until the daemon closes the connection.
std::string receive_all(const unique_fd &connection);

// The reply's bytes exactly as the daemon wrote them.
std::string scgi_get(const std::string &path, const std::string &query);
// The same for access.cgi.
std::string access_cgi(const std::string &query);
