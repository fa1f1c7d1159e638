// SCGI on /run/tvhttp/PROGRAM.sock, where the simulated camera's web server looks for a package's
// CGI. Heads are read without ever blocking the loop; a request that is complete is handed to the
// callback, whose writes go straight, and blocking, to the socket.
#include "tvhttp.h"

#include "handle.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <deque>
#include <glib-unix.h>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char *socket_folder = "/run/tvhttp";
// An argument of 100 kB comes percent-encoded (three times the size) and twice, as QUERY_STRING and
// in REQUEST_URI.
constexpr size_t max_head_bytes = 2UL * 1024 * 1024;
constexpr size_t max_body_bytes = 1024UL * 1024;
// GLib's string hash is easily made to collide; this many names can't cost noticeable time.
constexpr unsigned max_arguments = 1000;
constexpr size_t max_open_requests = 64;
constexpr unsigned request_limit_s = 30;
constexpr int write_limit_ms = 20'000;

// A source attached to a context; goes when its owner does.
struct SourceDestroyer {
    void operator()(GSource *source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
using Source = std::unique_ptr<GSource, SourceDestroyer>;

template <typename Callback>
Source attach(GSource *source, Callback callback, gpointer data, GMainContext *context,
              int priority = G_PRIORITY_DEFAULT) {
    g_source_set_callback(source, G_SOURCE_FUNC(callback), data, nullptr);
    g_source_set_priority(source, priority);
    g_source_attach(source, context);
    return Source(source);
}

// --- The reply's stream -------------------------------------------------------------------------

struct ReplyStream {
    GOutputStream parent;
    int fd;
    gboolean broken;
};
struct ReplyStreamClass {
    GOutputStreamClass parent;
};

GType reply_stream_get_type();
G_DEFINE_FINAL_TYPE(ReplyStream, reply_stream, G_TYPE_OUTPUT_STREAM)

void reply_stream_init(ReplyStream *stream) {
    stream->fd = -1;
}

// True when the socket takes bytes again, false with `errno` set after a failure or the limit.
bool wait_writable(int fd) {
    const gint64 end_us = g_get_monotonic_time() + gint64{write_limit_ms} * 1000;
    for (;;) {
        const gint64 left_ms = (end_us - g_get_monotonic_time() + 999) / 1000;
        if (left_ms <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd waited{fd, POLLOUT, 0};
        const int ready = poll(&waited, 1, static_cast<int>(left_ms));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

gssize reply_stream_write(GOutputStream *output, const void *bytes, gsize count,
                          GCancellable *cancellable, GError **error) {
    auto *stream = reinterpret_cast<ReplyStream *>(output);
    if (g_cancellable_set_error_if_cancelled(cancellable, error))
        return -1;
    int failure = stream->broken ? EPIPE : 0;
    while (failure == 0) {
        const ssize_t sent = send(stream->fd, bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0)
            return sent;
        if (errno != EINTR &&
            ((errno != EAGAIN && errno != EWOULDBLOCK) || !wait_writable(stream->fd)))
            failure = errno;
    }
    // Shut down, so that a long reply to a client that is gone costs the limit once, not per write.
    stream->broken = TRUE;
    shutdown(stream->fd, SHUT_RDWR);
    g_set_error_literal(error, G_IO_ERROR, g_io_error_from_errno(failure), g_strerror(failure));
    return -1;
}

gboolean reply_stream_close(GOutputStream *output, GCancellable *, GError **) {
    auto *stream = reinterpret_cast<ReplyStream *>(output);
    shutdown(stream->fd, SHUT_WR);
    // Bytes left unread would turn the client's end of file into a connection reset.
    std::array<char, 4096> dropped;
    for (size_t total = 0; total < max_body_bytes;) {
        const ssize_t count = recv(stream->fd, dropped.data(), dropped.size(), MSG_DONTWAIT);
        if (count <= 0)
            break;
        total += static_cast<size_t>(count);
    }
    close(stream->fd);
    stream->fd = -1;
    return TRUE;
}

void reply_stream_class_init(ReplyStreamClass *type) {
    type->parent.write_fn = reply_stream_write;
    type->parent.close_fn = reply_stream_close;
}

// The stream closes the descriptor when it is closed or its last reference goes.
GOutputStream *reply_stream_new(unique_fd fd) {
    auto *stream = static_cast<ReplyStream *>(g_object_new(reply_stream_get_type(), nullptr));
    stream->fd = fd.release();
    return G_OUTPUT_STREAM(stream);
}

// --- Parsing ------------------------------------------------------------------------------------

// Bad escapes stay as they are. NUL comes out as itself; what can't carry it looks for it.
std::string percent_decoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '%' && i + 2 < text.size() && g_ascii_isxdigit(text[i + 1]) &&
            g_ascii_isxdigit(text[i + 2])) {
            decoded += static_cast<char>(g_ascii_xdigit_value(text[i + 1]) * 16 +
                                         g_ascii_xdigit_value(text[i + 2]));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

// From the last to the first, so that the last of a repeated name is the one that stays.
GHashTable *parse_query(std::string_view query) {
    GHashTable *arguments = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    for (unsigned count = 0; count < max_arguments && !query.empty(); count++) {
        const size_t ampersand = query.rfind('&');
        const size_t begin = ampersand == std::string_view::npos ? 0 : ampersand + 1;
        const std::string_view part = query.substr(begin);
        query = query.substr(0, begin == 0 ? 0 : begin - 1);
        const size_t equals = std::min(part.find('='), part.size());
        const std::string name = percent_decoded(part.substr(0, equals));
        const std::string value = percent_decoded(part.substr(std::min(equals + 1, part.size())));
        if (name.empty() || name.find('\0') != std::string::npos ||
            value.find('\0') != std::string::npos || g_hash_table_contains(arguments, name.c_str()))
            continue;
        g_hash_table_insert(arguments, g_strdup(name.c_str()), g_strdup(value.c_str()));
    }
    return arguments;
}

struct Request {
    std::string path;
    std::string method;
    std::string query;
    size_t body_bytes = 0;
};

// "CONTENT_LENGTH\0" "0\0" "SCGI\0" "1\0" "REQUEST_METHOD\0" "GET\0" ...
std::optional<Request> parse_headers(std::string_view head) {
    std::map<std::string_view, std::string_view> fields;
    while (!head.empty()) {
        std::array<std::string_view, 2> pair;
        for (std::string_view &text : pair) {
            const size_t end = head.find('\0');
            if (end == std::string_view::npos)
                return std::nullopt;
            text = head.substr(0, end);
            head.remove_prefix(end + 1);
        }
        fields[pair[0]] = pair[1];
    }
    Request request;
    const std::string_view length = fields["CONTENT_LENGTH"];
    const char *length_end = length.data() + length.size();
    if (length.empty() ||
        std::from_chars(length.data(), length_end, request.body_bytes).ptr != length_end ||
        request.body_bytes > max_body_bytes || fields["SCGI"] != "1")
        return std::nullopt;
    request.method = fields["REQUEST_METHOD"];
    request.query = fields["QUERY_STRING"];
    const std::string_view uri = fields["REQUEST_URI"];
    if (uri.starts_with('/')) {
        const std::string_view raw = uri.substr(0, uri.find('?'));
        request.path = percent_decoded(raw);
        // Cut at the NUL it would name another path than the one the web server authorised.
        if (request.path.find('\0') != std::string::npos)
            request.path = raw;
    } else {
        request.path = std::string(fields["SCRIPT_NAME"]).append(fields["PATH_INFO"]);
    }
    return request;
}

// --- Connections --------------------------------------------------------------------------------

// Made when a client connects; gone when its request is handed over, malformed or too late.
struct Connection {
    TVHttpHandler *handler = nullptr;
    unique_fd fd;
    std::string head;               // as received: "LENGTH:" and then LENGTH bytes and ","
    std::optional<Request> request; // from when the head is complete
    size_t body_received = 0;
    Source readable;
    Source limit;
};

enum class Progress { incomplete, complete, malformed };

// Looks at what `head` holds so far.
Progress look_at_head(Connection &connection) {
    const std::string &received = connection.head;
    size_t length = 0;
    const char *end = received.data() + received.size();
    const auto [next, status] = std::from_chars(received.data(), end, length);
    if (received.empty() || (status == std::errc() && next == end && length <= max_head_bytes))
        return Progress::incomplete;
    if (status != std::errc() || *next != ':' || length > max_head_bytes)
        return Progress::malformed;
    const size_t begin = static_cast<size_t>(next - received.data()) + 1;
    if (received.size() <= begin + length)
        return Progress::incomplete;
    if (received[begin + length] != ',')
        return Progress::malformed;
    connection.request = parse_headers(std::string_view(received).substr(begin, length));
    if (!connection.request)
        return Progress::malformed;
    connection.body_received = received.size() - (begin + length + 1);
    connection.head = std::string();
    return Progress::complete;
}

// One piece a call, so that a client that floods doesn't keep the others waiting.
Progress read_piece(Connection &connection) {
    std::array<char, 65536> piece;
    const ssize_t count = recv(connection.fd.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return Progress::incomplete;
    if (count <= 0)
        return Progress::malformed;
    if (connection.request) {
        connection.body_received += static_cast<size_t>(count);
    } else {
        connection.head.append(piece.data(), static_cast<size_t>(count));
        const Progress progress = look_at_head(connection);
        if (progress != Progress::complete)
            return progress;
    }
    return connection.body_received >= connection.request->body_bytes ? Progress::complete
                                                                      : Progress::incomplete;
}

std::string program_name() {
    if (const gchar *name = g_get_prgname())
        return std::string(name).substr(std::string(name).rfind('/') + 1);
    std::array<char, 4096> target;
    const ssize_t count = readlink("/proc/self/exe", target.data(), target.size());
    const std::string path(target.data(), count > 0 ? static_cast<size_t>(count) : 0);
    return path.substr(path.rfind('/') + 1);
}

} // namespace

struct TVHttpHandler {
    TVHttpRequestCallback callback = nullptr;
    gpointer user_data = nullptr;
    GMainContext *context = nullptr;
    unique_fd listener;
    std::string socket_path;
    ino_t socket_inode = 0;
    std::map<Connection *, std::unique_ptr<Connection>> connections;
    std::deque<std::unique_ptr<Connection>> ready;
    bool calling = false;
    Source acceptable;
    Source accept_pause;
};

namespace {

void start_accepting(TVHttpHandler &handler);

// A callback that iterates the loop must not be entered again; what is complete then waits.
void call_for_ready(TVHttpHandler &handler) {
    if (handler.calling)
        return;
    handler.calling = true;
    while (!handler.ready.empty()) {
        const std::unique_ptr<Connection> connection = std::move(handler.ready.front());
        handler.ready.pop_front();
        const Request &request = *connection->request;
        GHashTable *arguments = parse_query(request.query);
        handler.callback(request.path.c_str(), request.method.c_str(), request.query.c_str(),
                         arguments, reply_stream_new(std::move(connection->fd)), handler.user_data);
        g_hash_table_unref(arguments);
    }
    handler.calling = false;
    start_accepting(handler);
}

void drop(Connection *connection) {
    TVHttpHandler &handler = *connection->handler;
    handler.connections.erase(connection);
    start_accepting(handler);
}

gboolean on_readable(gint, GIOCondition, gpointer data) noexcept {
    auto *connection = static_cast<Connection *>(data);
    switch (read_piece(*connection)) {
    case Progress::incomplete:
        return G_SOURCE_CONTINUE;
    case Progress::malformed:
        drop(connection);
        return G_SOURCE_REMOVE;
    case Progress::complete:
        break;
    }
    TVHttpHandler &handler = *connection->handler;
    connection->readable.reset();
    connection->limit.reset();
    handler.ready.push_back(std::move(handler.connections.extract(connection).mapped()));
    call_for_ready(handler);
    return G_SOURCE_REMOVE;
}

gboolean on_limit(gpointer data) noexcept {
    drop(static_cast<Connection *>(data));
    return G_SOURCE_REMOVE;
}

gboolean on_pause_over(gpointer data) noexcept {
    auto &handler = *static_cast<TVHttpHandler *>(data);
    handler.accept_pause.reset();
    start_accepting(handler);
    return G_SOURCE_REMOVE;
}

gboolean on_acceptable(gint, GIOCondition, gpointer data) noexcept {
    auto &handler = *static_cast<TVHttpHandler *>(data);
    const int fd = accept4(handler.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED)
            return G_SOURCE_CONTINUE;
        // Out of descriptors: the client stays in the queue and the loop would spin.
        handler.acceptable.reset();
        handler.accept_pause =
            attach(g_timeout_source_new_seconds(1), on_pause_over, &handler, handler.context);
        return G_SOURCE_REMOVE;
    }
    auto connection = std::make_unique<Connection>();
    connection->handler = &handler;
    connection->fd = unique_fd(fd);
    connection->readable =
        attach(g_unix_fd_source_new(fd, G_IO_IN), on_readable, connection.get(), handler.context);
    // Below what reads: after a callback that took long, first look at what came meanwhile.
    connection->limit = attach(g_timeout_source_new_seconds(request_limit_s), on_limit,
                               connection.get(), handler.context, G_PRIORITY_LOW);
    Connection *key = connection.get();
    handler.connections.emplace(key, std::move(connection));
    if (handler.connections.size() + handler.ready.size() < max_open_requests)
        return G_SOURCE_CONTINUE;
    handler.acceptable.reset();
    return G_SOURCE_REMOVE;
}

void start_accepting(TVHttpHandler &handler) {
    if (handler.acceptable || handler.accept_pause ||
        handler.connections.size() + handler.ready.size() >= max_open_requests)
        return;
    handler.acceptable = attach(g_unix_fd_source_new(handler.listener.get(), G_IO_IN),
                                on_acceptable, &handler, handler.context);
}

} // namespace

TVHttpHandler *tv_http_handler_new(TVHttpRequestCallback callback, gpointer user_data) {
    const std::string path = std::string(socket_folder) + "/" + program_name() + ".sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return nullptr;
    path.copy(address.sun_path, path.size());
    if (mkdir(socket_folder, 0755) != 0 && errno != EEXIST)
        return nullptr;
    unlink(path.c_str()); // left behind by a process that was killed
    unique_fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    struct stat made;
    // The mode is right before anyone can connect: that takes the listen.
    if (listener.get() < 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0666) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
        stat(path.c_str(), &made) != 0)
        return nullptr;
    auto handler = std::make_unique<TVHttpHandler>();
    handler->callback = callback;
    handler->user_data = user_data;
    handler->context = g_main_context_ref_thread_default();
    handler->listener = std::move(listener);
    handler->socket_path = path;
    handler->socket_inode = made.st_ino;
    start_accepting(*handler);
    return handler.release();
}

void tv_http_handler_free(TVHttpHandler *handler) {
    const std::unique_ptr<TVHttpHandler> owned(handler);
    if (!handler)
        return;
    struct stat present;
    // Not when a newer handler has put its own socket there.
    if (stat(handler->socket_path.c_str(), &present) == 0 &&
        present.st_ino == handler->socket_inode)
        unlink(handler->socket_path.c_str());
    handler->acceptable.reset();
    handler->accept_pause.reset();
    handler->connections.clear();
    handler->ready.clear();
    g_main_context_unref(handler->context);
}
