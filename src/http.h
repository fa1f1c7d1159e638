// Routes the requests that reach the package's CGI to action handlers, and holds what the replies
// have in common. Everything here runs on the main loop, one request at a time.
#pragma once

#include "loop.h"

#include <gio/gio.h>
#include <string_view>
#include <sys/types.h>

// Writes the whole reply, header block first, before it returns; owns neither the stream nor the
// table. Serves both a path and an action.
using http_callback = void (*)(GDataOutputStream *stream, GHashTable *arguments);

// Makes the platform's HTTP handler and the empty tables, freeing earlier ones.
void http_init();

// Registers a path callback under "/local/Vandrel/NAME"; at most 127 bytes in all.
void http_cgi(const char *name, http_callback callback);

// Registers an action by name, or replaces its handler.
void http_register_action(const char *name, http_callback handler);

// The path callback of access.cgi: calls the handler named by the argument "action".
void http_access_callback(GDataOutputStream *stream, GHashTable *arguments);

// An argument's value, or nullptr when the request has none of that name.
const char *http_argument(GHashTable *arguments, const char *name);

// Writes text to the reply. False once the client is gone or has stopped reading: what produces a
// long reply ends then.
bool http_write(GDataOutputStream *stream, std::string_view text);

// Content types of the replies. Clients compare them, so each reply keeps its own spelling.
namespace content_type {
inline constexpr const char *json = "application/json";
inline constexpr const char *json_open = "application/json; "; // of the device test
inline constexpr const char *json_utf8 = "application/json; charset=utf-8";
inline constexpr const char *text = "text/plain";
inline constexpr const char *text_utf8 = "text/plain; charset=utf-8";
inline constexpr const char *html_utf8 = "text/html; charset=utf-8";
inline constexpr const char *binary = "application/octet-stream";
} // namespace content_type

enum class http_status { ok, accepted, bad_request, internal_server_error, service_unavailable };

// The header block: status line, the three lines that keep a reply out of caches, the lines of a
// download if it is one ("Content-Description: ...\r\n..."), content type, empty line.
void http_write_header(GDataOutputStream *stream, http_status status, const char *content_type,
                       std::string_view download_lines = {});

// A whole reply: header block and body.
void http_reply(GDataOutputStream *stream, http_status status, const char *content_type,
                std::string_view body);

// Writes a regular file to the stream: 0, or 1 when it can't be opened (a warning) or the client
// has gone.
int output_file(GDataOutputStream *stream, const char *path);

// The same of an open file, and of it just so many bytes, which a header has promised.
int output_descriptor(GDataOutputStream *stream, int file, off_t size);

// The handlers during which the daemon's own timers, file watches and child watches run: between
// the pieces of the reply, and during waits for a tool. No other handler allows that, least of all
// the start and stop of a session. Other requests still wait. Such a handler leaves no state half
// changed at these points and uses only descriptors of its own: its file may be removed, the
// session stopped or the clean-up run meanwhile.
enum class long_reply {
    session_archive, // get_monitor_data, once the archive is open
    session_data,    // view_monitor_data: a part of a file, records
    trace_archive,   // download_wireshark_session, with its packing
    trace_repair,    // stop_wireshark_session: repair and packing, behind the reply
    device_test_log, // download_nc_log
    log_view,        // instant_log_view and its download
    ping,
    traceroute,
    port_check,
    name_lookup
};
class long_reply_turns {
  public:
    explicit long_reply_turns(long_reply) {}

  private:
    loop_turns turns_;
};

// A whole reply with status 400, the message and a line end, as plain text.
void print_http_error(GDataOutputStream *stream, const char *message);

// Copies a shell command's output to the reply as it comes; ends the command when the client is
// gone.
void http_write_command_output(GDataOutputStream *stream, const char *command);
