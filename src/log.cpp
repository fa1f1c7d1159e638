#include "log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

std::mutex sink_mutex;
log_sink sink; // guarded by sink_mutex

// --- The log daemon's socket. After one time-out there is no further wait until a message is
// taken; dropped messages are counted and reported then.

constexpr int patience_ms = 1000;

std::mutex log_socket_mutex; // guards what follows
int log_socket = -1;
int log_socket_type = SOCK_DGRAM;
unsigned long lost_messages = 0; // not reported yet
unsigned long all_lost_messages = 0;

void connect_log_socket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        log_socket_type = type;
        log_socket = ::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (log_socket < 0 || ::connect(log_socket, reinterpret_cast<const sockaddr *>(&address),
                                        sizeof address) == 0) {
            return;
        }
        ::close(std::exchange(log_socket, -1));
    }
}

bool try_to_send(const std::string &line) {
    if (log_socket < 0) {
        errno = ENOTCONN;
        return false;
    }
    // On a stream socket the NUL byte ends the message.
    const std::size_t size = line.size() + (log_socket_type == SOCK_STREAM ? 1 : 0);
    return ::send(log_socket, line.c_str(), size, MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(size);
}

// As syslog(3) writes it: "<11>Nov 21 18:11:40 Vandrel[2678]: TEXT".
bool send_line(int level, const std::string &message) {
    const std::time_t now = std::time(nullptr);
    struct tm local {};
    char time[32] = "";
    if (::localtime_r(&now, &local) != nullptr) {
        (void)std::strftime(time, sizeof time, "%b %e %H:%M:%S", &local);
    }
    const std::string line = "<" + std::to_string(LOG_USER | level) + ">" + time + " Vandrel[" +
                             std::to_string(::getpid()) + "]: " + message;
    if (try_to_send(line)) {
        return true;
    }
    if (errno == EAGAIN || errno == ENOBUFS) {
        // A burst overfills the socket; a working log daemon drains it soon.
        pollfd socket{log_socket, POLLOUT, 0};
        return lost_messages == 0 && ::poll(&socket, 1, patience_ms) > 0 && try_to_send(line);
    }
    // The log daemon was restarted, or started for the first time.
    if (log_socket >= 0) {
        ::close(std::exchange(log_socket, -1));
    }
    connect_log_socket();
    return try_to_send(line);
}

void send_or_count(int level, const std::string &message) {
    const int before = errno;
    if (lost_messages > 0 &&
        send_line(LOG_WARNING, "The system log has not taken " + std::to_string(lost_messages) +
                                   " messages of this program.")) {
        lost_messages = 0;
    }
    if (lost_messages > 0 || !send_line(level, message)) {
        ++lost_messages;
        ++all_lost_messages;
    }
    errno = before;
}

// --- Reactions

struct reaction {
    std::size_t hash = 0;
    std::chrono::steady_clock::time_point time{};
};
constexpr auto reaction_memory = std::chrono::minutes(5);
constexpr std::size_t reaction_compared = 200; // bytes; the log service may cut a line

std::mutex reactions_mutex;
std::array<reaction, 4096> reactions; // guarded by reactions_mutex; the oldest is overwritten
std::size_t next_reaction = 0;        // as well
thread_local int reaction_depth = 0;

// Hashes up to the first control character or "#", and without blanks at the ends: log daemons
// escape the former ("#011") and trim the latter.
std::size_t reaction_hash(std::string_view message) {
    message.remove_prefix(std::min(message.find_first_not_of(' '), message.size()));
    const auto printable = std::find_if(message.begin(), message.end(), [](char ch) {
        return static_cast<unsigned char>(ch) < ' ' || ch == '#';
    });
    message = message.substr(0, static_cast<std::size_t>(printable - message.begin()));
    message = message.substr(0, reaction_compared);
    message = message.substr(0, message.find_last_not_of(' ') + 1);
    return std::hash<std::string_view>{}(message);
}

void remember_reaction(const std::string &message) {
    const std::lock_guard lock(reactions_mutex);
    reactions[next_reaction] = {reaction_hash(message), std::chrono::steady_clock::now()};
    next_reaction = (next_reaction + 1) % reactions.size();
}

void deliver(int level, const std::string &message) {
    if (reaction_depth > 0) {
        remember_reaction(message);
    }
    {
        const std::lock_guard lock(sink_mutex);
        if (sink) {
            sink(level, message);
            return;
        }
    }
    const std::lock_guard lock(log_socket_mutex);
    send_or_count(level, message);
}

void append_formatted(std::string &message, const char *format, va_list arguments) {
    const std::size_t start = message.size();
    message.resize(start + log_message_max + 1);
    const int length =
        std::vsnprintf(message.data() + start, log_message_max + 1, format, arguments);
    const auto used = length < 0 ? 0 : static_cast<std::size_t>(length);
    message.resize(start + (used < log_message_max ? used : log_message_max));
}

std::string prefix(std::string_view module, int line, int error) {
    char text[128];
    // GNU strerror_r: thread safe, and may answer with a text of its own instead of the buffer.
    const char *reason = error == 0 ? "None" : ::strerror_r(error, text, sizeof text);
    return "(" + std::string(module) + ":" + std::to_string(line) + ", errno: " + reason + ") ";
}

void out_of_memory() {
    // Nothing here may allocate, nor wait for a lock that this thread may hold.
    constexpr std::string_view line = "<8>Vandrel: (log:1, errno: None) Out of memory.";
    (void)!::send(log_socket, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    std::abort();
}

} // namespace

void log_open() {
    const std::lock_guard lock(log_socket_mutex);
    connect_log_socket();
    errno = 0;
}

void log_write(int level, const char *format, ...) {
    std::string message;
    va_list arguments;
    va_start(arguments, format);
    append_formatted(message, format, arguments);
    va_end(arguments);
    deliver(level, message);
}

void log_write_at(int level, std::string_view module, int line, const char *format, ...) {
    std::string message = prefix(module, line, errno);
    va_list arguments;
    va_start(arguments, format);
    append_formatted(message, format, arguments);
    va_end(arguments);
    deliver(level, message);
    errno = 0;
}

void log_fatal_at(std::string_view module, int line, const char *format, ...) {
    std::string message = prefix(module, line, errno);
    va_list arguments;
    va_start(arguments, format);
    append_formatted(message, format, arguments);
    va_end(arguments);
    deliver(LOG_EMERG, message);
    std::abort();
}

void log_cannot_open(const char *path) {
    const int error = errno;
    char text[128];
    log_warning("(errno: %s) Could not open file '%s'",
                error == 0 ? "None" : ::strerror_r(error, text, sizeof text), path);
    errno = 0;
}

void log_install_out_of_memory_handler() {
    std::set_new_handler(out_of_memory);
}

unsigned long log_lost_messages() {
    const std::lock_guard lock(log_socket_mutex);
    return all_lost_messages;
}

log_reaction::log_reaction() {
    ++reaction_depth;
}
log_reaction::~log_reaction() {
    --reaction_depth;
}

bool log_was_reaction(std::string_view message) {
    const std::size_t hash = reaction_hash(message);
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(reactions_mutex);
    return std::any_of(reactions.begin(), reactions.end(), [&](const reaction &entry) {
        return entry.hash == hash && entry.time != std::chrono::steady_clock::time_point() &&
               now - entry.time < reaction_memory;
    });
}

void log_set_sink(log_sink new_sink) {
    const std::lock_guard lock(sink_mutex);
    sink = std::move(new_sink);
}
