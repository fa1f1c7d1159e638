// Everything that the daemon has to say goes to syslog under one ident. Errors carry where they
// were noticed and what errno was: "(module:line, errno: TEXT) message".
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <syslog.h>

// Opens syslog with the ident "Vandrel". Main thread, once, before other threads run. A log
// daemon that hangs costs one second, once: messages that it does not take are dropped, and their
// number is logged when it recovers.
void log_open();

// Logs one message at a syslog level. A message of more than log_message_max bytes is cut there,
// so that a line that quotes what a request sent stays one line for those who read the log.
// Any thread.
inline constexpr std::size_t log_message_max = 3000;
void log_write(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The same with "(module:line, errno: TEXT) " in front; clears errno. Use the macros below.
void log_write_at(int level, std::string_view module, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// As log_write_at, and ends the process: for programming faults and exhausted resources only,
// never for what a request, a file or a service can bring about.
[[noreturn]] void log_fatal_at(std::string_view module, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// "(errno: TEXT) Could not open file 'PATH'" at warning level; clears errno.
void log_cannot_open(const char *path);

// Makes running out of memory end the process with a message. Once, at start.
void log_install_out_of_memory_handler();

// "src/line_parser.cpp" -> "line_parser"
constexpr std::string_view log_module_of(std::string_view path) {
    if (const auto slash = path.rfind('/'); slash != std::string_view::npos) {
        path.remove_prefix(slash + 1);
    }
    return path.substr(0, path.find('.'));
}

#define log_at(level, ...) log_write_at((level), log_module_of(__FILE__), __LINE__, __VA_ARGS__)
#define log_error(...) log_at(LOG_ERR, __VA_ARGS__)
#define log_critical(...) log_at(LOG_CRIT, __VA_ARGS__)
#define log_fatal(...) log_fatal_at(log_module_of(__FILE__), __LINE__, __VA_ARGS__)
#define log_warning(...) log_write(LOG_WARNING, __VA_ARGS__)
#define log_notice(...) log_write(LOG_NOTICE, __VA_ARGS__)
#define log_info(...) log_write(LOG_INFO, __VA_ARGS__)

// How many messages the log daemon has not taken since the start. Any thread.
unsigned long log_lost_messages();

// Marks what a thread logs during its lifetime as a reaction to a line of the log: when the line
// comes back through the log, no rule may match it, or the two would feed each other.
class log_reaction {
  public:
    log_reaction();
    ~log_reaction();
    log_reaction(const log_reaction &) = delete;
    log_reaction &operator=(const log_reaction &) = delete;
};

// Whether a message that was read from the log is such a reaction of the last minutes. Any thread.
bool log_was_reaction(std::string_view message);

// Receives what would go to syslog; with one set, syslog gets nothing. For tests. Called with the
// sink's mutex held, on the thread that logs.
using log_sink = std::function<void(int level, const std::string &message)>;
void log_set_sink(log_sink sink);
