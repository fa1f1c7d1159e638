#include "http.h"

#include "fileutil.h"
#include "glib_ptr.h"
#include "log.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <tvhttp.h>

namespace {

constexpr std::size_t cgi_key_size = 128;
constexpr std::size_t reply_piece = 65536;

// The "=" of the character set is missing: kept, clients compare this line.
constexpr std::string_view routing_error_type = "Content-Type: text/plain; charset-utf-8;\r\n\r\n";

using http_handler_ptr = std::unique_ptr<TVHttpHandler, deleter<tv_http_handler_free>>;

http_handler_ptr httpHandler;
ghashtable_ptr cgi_func_lookup;   // path to http_callback
ghashtable_ptr cgi_action_lookup; // action name to http_callback

ghashtable_ptr new_lookup_table() {
    ghashtable_ptr table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr));
    if (!table) {
        log_critical("Failed to create a lookup table for cgi");
    }
    return table;
}

void insert(const ghashtable_ptr &table, const char *key, http_callback callback) {
    if (table) {
        g_hash_table_replace(table.get(), g_strdup(key), reinterpret_cast<gpointer>(callback));
    }
}

http_callback find(const ghashtable_ptr &table, const char *key) {
    return table ? reinterpret_cast<http_callback>(g_hash_table_lookup(table.get(), key)) : nullptr;
}

void httpCallback_main(const gchar *path, const gchar *, const gchar *, GHashTable *arguments,
                       GOutputStream *output, gpointer) noexcept {
    const gobject_ptr<GOutputStream> output_owner(output);
    const gobject_ptr<GDataOutputStream> stream(g_data_output_stream_new(output));
    if (!stream) {
        return;
    }
    if (const http_callback callback = find(cgi_func_lookup, path)) {
        callback(stream.get(), arguments);
    } else {
        http_write(stream.get(), routing_error_type);
        http_write(stream.get(), "Could not find what to do with that path\r\n\r\n");
    }
}

const char *status_line(http_status status) {
    switch (status) {
    case http_status::ok:
        return "Status: 200 OK\r\n";
    case http_status::accepted:
        return "Status: 202 Accepted\r\n";
    case http_status::bad_request:
        return "Status: 400 Bad Request\r\n";
    case http_status::internal_server_error:
        return "Status: 500 Internal Server Error\r\n";
    case http_status::service_unavailable:
        break;
    }
    return "Status: 503 Service Unavailable\r\n";
}

std::string header_block(http_status status, const char *content_type,
                         std::string_view download_lines) {
    std::string block = status_line(status);
    block += "Pragma: no-cache\r\n"
             "Cache-Control: no-cache\r\n"
             "Expires: -1\r\n";
    block += download_lines;
    return block + "Content-Type: " + content_type + "\r\n\r\n";
}

} // namespace

void http_init() {
    httpHandler.reset();
    cgi_func_lookup.reset();
    cgi_action_lookup.reset();
    httpHandler.reset(tv_http_handler_new(httpCallback_main, nullptr));
    if (!httpHandler) {
        log_critical("Http handler could not be created");
        return;
    }
    cgi_func_lookup = new_lookup_table();
    cgi_action_lookup = new_lookup_table();
}

void http_cgi(const char *name, http_callback callback) {
    insert(cgi_func_lookup, format_bounded(cgi_key_size, "/local/Vandrel/%s", name).c_str(),
           callback);
}

void http_register_action(const char *name, http_callback handler) {
    insert(cgi_action_lookup, name, handler);
}

void http_access_callback(GDataOutputStream *stream, GHashTable *arguments) {
    errno = 0; // a stale errno must not show in this request's messages
    const char *action = http_argument(arguments, "action");
    if (action == nullptr) {
        http_write(stream, routing_error_type);
        http_write(stream, "{\"error\":\"Missing option\"}");
    } else if (const http_callback handler = find(cgi_action_lookup, action)) {
        handler(stream, arguments);
    } else {
        http_write(stream, routing_error_type);
        http_write(stream, "{ \"error\": \"Action did not match any installed\"}\r\n\r\n");
    }
}

const char *http_argument(GHashTable *arguments, const char *name) {
    return static_cast<const char *>(g_hash_table_lookup(arguments, name));
}

bool http_write(GDataOutputStream *stream, std::string_view text) {
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, reply_piece);
        if (g_output_stream_write_all(G_OUTPUT_STREAM(stream), piece.data(), piece.size(), nullptr,
                                      nullptr, nullptr) == FALSE) {
            return false;
        }
        loop_run_due();
        text.remove_prefix(piece.size());
    }
    return true;
}

void http_write_header(GDataOutputStream *stream, http_status status, const char *content_type,
                       std::string_view download_lines) {
    http_write(stream, header_block(status, content_type, download_lines));
}

void http_reply(GDataOutputStream *stream, http_status status, const char *content_type,
                std::string_view body) {
    http_write(stream, header_block(status, content_type, {}).append(body));
}

int output_file(GDataOutputStream *stream, const char *path) {
    const unique_fd file = file_descriptor(path, O_RDONLY);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        log_cannot_open(path);
        return 1;
    }
    return output_descriptor(stream, file.get(), status.st_size);
}

int output_descriptor(GDataOutputStream *stream, int file, off_t left) {
    std::array<char, reply_piece> piece;
    while (left > 0) {
        const ssize_t size = ::read(file, piece.data(),
                                    static_cast<std::size_t>(std::min<off_t>(left, piece.size())));
        if (size <= 0 || !http_write(stream, {piece.data(), static_cast<std::size_t>(size)})) {
            errno = 0;
            return 1;
        }
        left -= size;
    }
    return 0;
}

void print_http_error(GDataOutputStream *stream, const char *message) {
    http_reply(stream, http_status::bad_request, content_type::text, std::string(message) + "\r\n");
}

void http_write_command_output(GDataOutputStream *stream, const char *command) {
    command_pipe pipe(command);
    std::string piece;
    while (!(piece = pipe.next_piece()).empty() && http_write(stream, piece)) {
    }
}
