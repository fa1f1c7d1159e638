#include "daemon_process.h"

#include "sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

constexpr const char *daemon_path = "/usr/local/packages/Vandrel/Vandrel";
constexpr const char *scgi_socket = "/run/tvhttp/Vandrel.sock";

sockaddr_un unix_address(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// "<14>Nov 21 03:39:00 Vandrel[17]: message"
daemon_log_line parse_datagram(const std::string &datagram) {
    const auto text = datagram.find("]: ");
    return {std::atoi(datagram.c_str() + 1) & 7,
            text == std::string::npos ? datagram : datagram.substr(text + 3)};
}

} // namespace

daemon_process::daemon_process(const std::vector<std::string> &environment) {
    ::unlink("/dev/log");
    ::unlink(scgi_socket);
    log_socket_ = unique_fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unix_address("/dev/log");
    if (::bind(log_socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address)) {
        fail("/dev/log");
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    stopped_ = unique_fd(ends[0]);
    stop_reading_ = unique_fd(ends[1]);
    reader_ = std::thread(&daemon_process::read_log, this);

    pid_ = ::fork();
    if (pid_ == 0) {
        for (const std::string &variable : environment) {
            ::putenv(::strdup(variable.c_str()));
        }
        ::execl(daemon_path, daemon_path, nullptr);
        ::_exit(127);
    }
    const bool answers = wait_until([] {
        const unique_fd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un socket_address = unix_address(scgi_socket);
        return ::connect(connection.get(), reinterpret_cast<const sockaddr *>(&socket_address),
                         sizeof socket_address) == 0;
    });
    if (!answers) {
        fail("the daemon does not listen");
    }
    // Answered by the main loop, so that the whole start lies behind.
    access_cgi("");
}

daemon_process::~daemon_process() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    (void)stop_reading_.close();
    reader_.join();
    ::unlink("/dev/log");
}

bool daemon_process::is_alive() const {
    return ::waitpid(pid_, nullptr, WNOHANG) == 0;
}

void daemon_process::signal(int number) const {
    ::kill(pid_, number);
}

std::vector<daemon_log_line> daemon_process::log() const {
    const std::lock_guard lock(mutex_);
    return lines_;
}

std::optional<daemon_log_line> daemon_process::wait_for_log(const std::string &text) const {
    std::optional<daemon_log_line> found;
    wait_until([&] {
        for (const daemon_log_line &line : log()) {
            if (line.message.find(text) != std::string::npos) {
                found = line;
                return true;
            }
        }
        return false;
    });
    return found;
}

void daemon_process::read_log() {
    std::string datagram(65536, '\0');
    pollfd sources[] = {{log_socket_.get(), POLLIN, 0}, {stopped_.get(), POLLIN, 0}};
    while (::poll(sources, 2, -1) > 0 && sources[1].revents == 0) {
        const ssize_t size = ::recv(log_socket_.get(), datagram.data(), datagram.size(), 0);
        if (size > 0) {
            const std::lock_guard lock(mutex_);
            lines_.push_back(parse_datagram(datagram.substr(0, static_cast<std::size_t>(size))));
        }
    }
}

std::string scgi_request(const std::string &path, const std::string &query) {
    std::string headers;
    const auto add = [&headers](const std::string &name, const std::string &value) {
        headers += name + '\0' + value + '\0';
    };
    add("CONTENT_LENGTH", "0");
    add("SCGI", "1");
    add("REQUEST_METHOD", "GET");
    add("REQUEST_URI", query.empty() ? path : path + "?" + query);
    add("SCRIPT_NAME", path);
    add("QUERY_STRING", query);
    return std::to_string(headers.size()) + ":" + headers + ",";
}

unique_fd scgi_connect() {
    unique_fd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unix_address(scgi_socket);
    if (::connect(connection.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
        0) {
        fail("connect");
    }
    return connection;
}

void send_all(const unique_fd &connection, const std::string &bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t size =
            ::send(connection.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (size <= 0) {
            return; // the daemon has closed: what it answered is still to be read
        }
        sent += static_cast<std::size_t>(size);
    }
}

std::string receive_all(const unique_fd &connection) {
    std::string reply;
    char piece[65536];
    ssize_t size = 0;
    while ((size = ::recv(connection.get(), piece, sizeof piece, 0)) > 0) {
        reply.append(piece, static_cast<std::size_t>(size));
    }
    return reply;
}

std::string scgi_get(const std::string &path, const std::string &query) {
    const unique_fd connection = scgi_connect();
    send_all(connection, scgi_request(path, query));
    return receive_all(connection);
}

std::string access_cgi(const std::string &query) {
    return scgi_get("/local/Vandrel/access.cgi", query);
}
