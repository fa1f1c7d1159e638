#include "vdrl_device_test.h"

#include "app_state.h"
#include "check_queue.h"
#include "csv.h"
#include "dateutil.h"
#include "fileutil.h"
#include "http.h"
#include "log.h"
#include "session_globals.h"
#include "shell_word.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <utility>

std::unique_ptr<nc_rules_t> nc_rules;

namespace {

constexpr std::size_t check_command_size = 524;
constexpr std::size_t define_command_size = 320;
constexpr std::size_t remove_command_size = 128;
constexpr std::size_t path_size = 256;
constexpr std::size_t host_text_size = 48;
constexpr std::size_t json_piece_size = 300;
constexpr std::size_t rule_line_max = 49; // the newline included
constexpr std::size_t line_tag = 2;

constexpr const char *rules_path = "/usr/local/packages/Vandrel/localdata/nc_rules.txt";
constexpr const char *tcptest_path = "/usr/bin/tcptest";
constexpr const char *storages[] = {"SD_DISK", "NetworkShare"}; // the first usable one gets a line
constexpr const char *storage_log_folder = "Network_Device_Test";
constexpr const char *session_log_folder = "network_device_test"; // not spelled as the one above
constexpr const char *log_name = "Network_Device_Test_Log.txt";
constexpr mode_t log_folder_mode = 0777;

// Without a Host line: any web server answers, if only with an error.
constexpr const char *http_probe =
    "GET / HTTP/1.1\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\n"
    "Accept-Language: en-US,en;q=0.5\r\n"
    "Accept-Encoding: gzip, deflate\r\n"
    "Connection: keep-alive\r\n\r\n";
constexpr int http_port = 80;

constexpr std::uint64_t timer_tick_wrap = 31'536'000;

bool is_port(long long port) {
    return port == nc_port_icmp || (port >= 1 && port <= 65535);
}

// Whether the rule file's line holds the address, and a message the host's text.
bool host_fits(const std::string &address, int port) {
    const std::size_t port_size = port == nc_port_icmp ? 0 : 1 + std::to_string(port).size();
    return address.size() <= nc_address_max && address.size() + port_size < host_text_size;
}

bool is_host_character(char ch) {
    return g_ascii_isalnum(ch) || std::string_view("._:%-").find(ch) != std::string_view::npos;
}

std::string vdrl_dt_format_address(const std::string &address, int port) {
    return port == nc_port_icmp ? format_bounded(host_text_size, "%s", address.c_str())
                                : format_bounded(host_text_size, "%s:%d", address.c_str(), port);
}

std::string host_text(const nc_rules_t &rule) {
    return vdrl_dt_format_address(rule.nc_address, rule.port);
}

// --- The log files

void make_log_folder(const std::string &path) {
    (void)make_folder(path.c_str(), log_folder_mode);
    errno = 0; // a failure shows when the file in it is opened
}

std::string storage_folder(const char *storage, const std::string &serial) {
    return format_bounded(path_size, "/var/spool/storage/%s/Vandrel_%s", storage, serial.c_str());
}

std::string storage_log_path(const char *storage, const std::string &serial) {
    return format_bounded(path_size, "/var/spool/storage/%s/Vandrel_%s/%s/%s", storage,
                          serial.c_str(), storage_log_folder, log_name);
}

// `time`: the same in the session's log and in the storage's.
bool vdrl_dt_log_status_in_file(const nc_rules_t &rule, const std::string &path, bool status,
                                const std::string &time) {
    // A write that a full storage refused does not count as a missing file.
    return append_rows(path, "",
                       format_text("%s Network Device Test: [%s] %s: %s\r\n", time.c_str(),
                                   rule.nc_name.c_str(),
                                   status ? "Connection successfully established to host"
                                          : "Connection failed to host",
                                   host_text(rule).c_str())) ||
           is_file(path.c_str());
}

void vdrl_dt_log_status_on_storage(nc_rules_t &rule, bool status, const char *storage,
                                   const std::string &serial, const std::string &time) {
    const std::string folder = storage_folder(storage, serial);
    make_log_folder(folder);
    make_log_folder(format_bounded(path_size, "%s/%s", folder.c_str(), storage_log_folder));
    const std::string path = storage_log_path(storage, serial);
    if (vdrl_dt_log_status_in_file(rule, path, status, time)) {
        rule.log_file_path = path;
    }
}

void log_status_in_session(const nc_rules_t &rule, bool status, const std::string &time) {
    const auto session = session_directory();
    // Nothing is made in an empty mount point; the tick logs the loss.
    if (!monitory_active || !session || !is_directory(session->c_str())) {
        return;
    }
    const std::string folder =
        format_bounded(path_size, "%s/%s", session->c_str(), session_log_folder);
    make_log_folder(folder);
    vdrl_dt_log_status_in_file(rule, format_bounded(path_size, "%s/%s", folder.c_str(), log_name),
                               status, time);
}

// Looked up once for a series of results.
struct usable_storage {
    bool is_known = false;
    const char *name = nullptr; // null: there is none
};
usable_storage storage_of_results;

const char *storage_for_results() {
    if (!std::exchange(storage_of_results.is_known, true)) {
        const auto *const usable =
            std::find_if(std::begin(storages), std::end(storages), [](const char *storage) {
                return determine_if_this_storage_is_ok(storage, false);
            });
        storage_of_results.name = usable == std::end(storages) ? nullptr : *usable;
    }
    return storage_of_results.name;
}

void vdrl_dt_log_status(nc_rules_t &rule, bool status, const std::string &serial) {
    const std::string time = date_format_now(date_format_information);
    log_status_in_session(rule, status, time);
    if (const char *storage = storage_for_results()) {
        vdrl_dt_log_status_on_storage(rule, status, storage, serial, time);
    }
    if (status) {
        log_info("Network Device Test: [%s] Connection successfully established to host: %s",
                 rule.nc_name.c_str(), host_text(rule).c_str());
    } else {
        log_warning("Network Device Test: [%s] Connection failed to host: %s", rule.nc_name.c_str(),
                    host_text(rule).c_str());
    }
}

void empty_storage_logs(const std::string &serial) {
    for (const char *storage : storages) {
        const std::string path = storage_log_path(storage, serial);
        // A share is foreign: to open a pipe there would wait for somebody who reads it.
        if (is_file(path.c_str())) {
            empty_file_if_possible(path.c_str());
        }
    }
    errno = 0;
}

// --- Checks

// The next line of the text, which loses it.
std::string_view take_line(std::string_view &text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    return line;
}

// nc's own messages begin with "nc:"; anything else is the host's answer.
//
//    nc: connect to 203.0.113.1 port 7002 (tcp) failed: Connection refused
constexpr std::string_view nc_prefix = "nc:";

// Whether the host has answered, the last line perhaps being unfinished.
bool host_has_answered(std::string_view output) {
    while (!output.empty()) {
        const std::string_view line = take_line(output);
        if (!line.starts_with(nc_prefix) && (!output.empty() || !nc_prefix.starts_with(line))) {
            return true;
        }
    }
    return false;
}

// False, with an error line, when the command could not be waited for or was killed.
bool ended_well(const check_result &c) {
    if (c.wait_status == -1) {
        log_error("[nfd]: Error reported by pclose from command: %s", c.command.c_str());
        return false;
    }
    // A host that went on talking after its first words sufficed: we closed the pipe.
    const bool by_our_closing =
        WIFEXITED(c.wait_status) && WEXITSTATUS(c.wait_status) == 128 + SIGPIPE;
    if (was_ended_by_signal(c.wait_status) && !by_our_closing) {
        log_error("[nfd]: Unsuccessful command: %s", c.command.c_str());
        return false;
    }
    return c.wait_status == 0;
}

void note_reachable(nc_rules_t &rule, const std::string &serial) {
    send_event_nfd(rule.events.ping_ok);
    rule.connected = true;
    vdrl_dt_log_status(rule, true, serial);
    rule.fail_count = 0;
}

// `what` is the host as the first failure in a row names it.
void note_unreachable(nc_rules_t &rule, const std::string &serial, const std::string &what) {
    send_event_nfd(rule.events.ping_not_ok);
    rule.connected = false;
    if (rule.fail_count == 0) {
        log_error("Network Device Test: Connection failed to ip-address %s", what.c_str());
    }
    vdrl_dt_log_status(rule, false, serial);
    ++rule.fails_total;
    ++rule.fail_count;
}

void vdrl_dt_icmp(nc_rules_t &rule, const std::string &serial, const check_result &c) {
    const bool reachable = ended_well(c);
    ++rule.checks_total;
    if (reachable) {
        note_reachable(rule, serial);
    } else {
        note_unreachable(rule, serial, rule.nc_address + " (ICMP)");
    }
}

// The tool prints only on failure.
void count_tcptest(nc_rules_t &rule, const std::string &serial, const check_result &c) {
    ++rule.checks_total;
    if (c.output.empty()) {
        note_reachable(rule, serial);
    } else {
        note_unreachable(rule, serial, host_text(rule));
    }
}

// The events come twice: kept, clients' action rules see both.
void count_nc(nc_rules_t &rule, const std::string &serial, const check_result &c) {
    std::string_view rest = c.output;
    while (!rest.empty()) {
        if (!take_line(rest).starts_with(nc_prefix)) {
            send_event_nfd(rule.events.ping_ok);
            rule.connected = true;
            vdrl_dt_log_status(rule, true, serial);
            ++rule.checks_total;
            rule.fail_count = 0;
            send_event_nfd(rule.events.ping_ok);
            return;
        }
        ++rule.fails_total;
        ++rule.fail_count;
        rule.connected = false;
        vdrl_dt_log_status(rule, false, serial);
        if (rule.fail_count >= rule.nbr_of_fails) {
            send_event_nfd(rule.events.ping_not_ok);
            if (rule.fail_count == 1) {
                log_error("Network Device Test: Connection failed to ip-address %s",
                          host_text(rule).c_str());
            }
            ++rule.checks_total;
            send_event_nfd(rule.events.ping_not_ok);
            return;
        }
    }
    ++rule.checks_total;
    if (!c.output.empty()) { // failures below the threshold
        send_event_nfd(rule.events.ping_not_ok);
        rule.connected = false;
    } else { // connected, and the host said nothing
        note_reachable(rule, serial);
    }
}

// The status of these commands does not count.
void vdrl_dt_tcp(nc_rules_t &rule, const std::string &serial, const check_result &c) {
    if (c.command.starts_with(tcptest_path)) {
        count_tcptest(rule, serial, c);
    } else {
        count_nc(rule, serial, c);
    }
    (void)ended_well(c);
}

check_command begin_check(nc_rules_t &rule, const std::string &serial) {
    if (!rule.nc_start_time) {
        rule.nc_start_time = date_format_now(date_format_information);
    }
    check_command command;
    const char *address = rule.nc_address.c_str();
    if (rule.port == nc_port_icmp) {
        command.text = format_bounded(check_command_size, "ping \"%s\" 2>&1", address);
    } else if (is_executable(tcptest_path)) {
        command.text = format_bounded(check_command_size, "%s 4 \"%s\" %d 2>&1", tcptest_path,
                                      address, rule.port);
    } else {
        command.text =
            format_bounded(check_command_size, "printf \"%s\" | nc -w 4 \"%s\" %d 2>&1",
                           rule.port == http_port ? http_probe : "TEST", address, rule.port);
        command.is_enough = host_has_answered;
    }
    command.count = [&rule, serial](const check_result &c) {
        if (c.is_first) {
            storage_of_results.is_known = false;
        }
        rule.being_checked = false;
        if (rule.port == nc_port_icmp) {
            vdrl_dt_icmp(rule, serial, c);
        } else {
            vdrl_dt_tcp(rule, serial, c);
        }
    };
    return command;
}

// --- The list

std::unique_ptr<nc_rules_t> new_rule(std::string address, int port, std::uint64_t timer,
                                     int nbr_of_fails, const std::string &name) {
    auto rule = std::make_unique<nc_rules_t>();
    rule->nc_address = std::move(address);
    rule->port = port;
    rule->timer = timer;
    rule->nbr_of_fails = nbr_of_fails;
    rule->nc_name = name;
    rule->events = declare_event_nfd(rule->nc_address.c_str(), port);
    return rule;
}

// The link that holds the rule of that host, or the list's empty end.
std::unique_ptr<nc_rules_t> &find_rule(std::unique_ptr<nc_rules_t> &rules,
                                       const std::string &address, int port) {
    std::unique_ptr<nc_rules_t> *link = &rules;
    while (*link && ((*link)->nc_address != address || (*link)->port != port)) {
        link = &(*link)->next;
    }
    return *link;
}

void vdrl_dt_rule_free(std::unique_ptr<nc_rules_t> &rule) {
    check_queue_forget(rule.get());
    nfd_event_undeclare(rule->events);
    rule.reset();
}

// A decimal number, one that is no port as 0.
int port_of(std::string_view text) {
    const long long number = decimal_prefix(text);
    return is_port(number) ? static_cast<int>(number) : 0;
}

// The low 32 bits of a decimal number.
int low_bits(std::string_view text) {
    return static_cast<int>(static_cast<std::uint32_t>(decimal_prefix(text)));
}

std::string value_of(const std::string &line) {
    std::string value = line.size() > line_tag ? line.substr(line_tag) : "";
    str_terminate_at(value, '\n');
    return value;
}

} // namespace

bool vdrl_dt_is_host(const std::string &address, int port) {
    return is_port(port) && host_fits(address, port) && !address.empty() &&
           !address.starts_with('-') &&
           std::all_of(address.begin(), address.end(), is_host_character);
}

// A record, with the tags that the package's scripts write:
//
//    N:192.168.0.1
//    P:80
//    T:6
//    F:3
//    L:the entrance's switch
std::unique_ptr<nc_rules_t> vdrl_dt_rules_read_from_file() {
    const unique_file file = file_open(rules_path, "r");
    errno = 0;
    std::unique_ptr<nc_rules_t> rules;
    std::unique_ptr<nc_rules_t> *end = &rules;
    std::string line;
    // Lines missing at the end of the file take the value of the last line.
    const auto next_value = [&] {
        std::string next;
        if (read_line(file.get(), rule_line_max, next)) {
            line = next;
        } else {
            log_error("fgets returned NULL");
        }
        return value_of(line);
    };
    while (file && read_line(file.get(), rule_line_max, line)) {
        if (!line.starts_with('N')) {
            continue;
        }
        const std::string address = value_of(line);
        const std::string port_text = next_value();
        const int port = port_of(port_text);
        const std::uint64_t timer = decimal_prefix_unsigned(next_value());
        const int nbr_of_fails = low_bits(next_value());
        const std::string name = next_value();
        if (!vdrl_dt_is_host(address, port)) {
            log_warning("Network Device Test: the rule for '%s', port %s, in '%s' can not be used",
                        address.c_str(), port_text.c_str(), rules_path);
            continue;
        }
        *end = new_rule(address, port, timer, nbr_of_fails, name);
        end = &(*end)->next;
    }
    return rules;
}

void vdrl_dt_rule_add(std::unique_ptr<nc_rules_t> &rules, const std::string &serial,
                      const std::string &address, int port, std::uint64_t timer, int nbr_of_fails,
                      const std::string &name) {
    (void)system_ret(
        format_bounded(define_command_size,
                       "/usr/local/packages/Vandrel/define_nc_rule.sh \"%s\" \"%d\" \"%lu\" "
                       "\"%d\" \"%s\" 2>> "
                       "/usr/local/packages/Vandrel/localdata/define_nc_rule.errors.log",
                       address.c_str(), port, static_cast<unsigned long>(timer), nbr_of_fails,
                       name.c_str())
            .c_str());
    if (!rules) {
        empty_storage_logs(serial);
    }
    if (const auto &known = find_rule(rules, address, port)) {
        known->timer = timer;
        known->nbr_of_fails = nbr_of_fails;
        known->nc_name = name;
        return;
    }
    auto rule = new_rule(address, port, timer, nbr_of_fails, name);
    rule->next = std::move(rules);
    rules = std::move(rule);
}

bool vdrl_dt_rule_remove(std::unique_ptr<nc_rules_t> &rules, const std::string &serial,
                         const std::string &address, int port) {
    std::unique_ptr<nc_rules_t> &link = find_rule(rules, address, port);
    if (!link) {
        return false;
    }
    std::unique_ptr<nc_rules_t> rule = std::exchange(link, std::move(link->next));
    vdrl_dt_rule_free(rule);
    (void)system_ret(format_bounded(remove_command_size,
                                    "/usr/local/packages/Vandrel/remove_nc_rule.sh \"%s\" \"%d\"",
                                    address.c_str(), port)
                         .c_str());
    if (!rules) {
        empty_storage_logs(serial);
    }
    return true;
}

void vdrl_dt_rules_free(std::unique_ptr<nc_rules_t> &rules) {
    while (rules) {
        std::unique_ptr<nc_rules_t> rule = std::exchange(rules, std::move(rules->next));
        vdrl_dt_rule_free(rule);
    }
}

void vdrl_dt_rules_print(const nc_rules_t *rules, GDataOutputStream *stream) {
    std::string text = "{ \"Rules\": [";
    for (const nc_rules_t *rule = rules; rule != nullptr; rule = rule->next.get()) {
        text += format_bounded(json_piece_size,
                               "{ \"address\": \"%s\", \"port\":%d,  \"timer\": %lu, "
                               "\"fails\":%d, \"alive\":%d, \"checks\":%llu, "
                               "\"total_fails\":%llu",
                               rule->nc_address.c_str(), rule->port,
                               static_cast<unsigned long>(rule->timer), rule->nbr_of_fails,
                               rule->connected ? 1 : 0,
                               static_cast<unsigned long long>(rule->checks_total),
                               static_cast<unsigned long long>(rule->fails_total));
        text += format_bounded(json_piece_size, ",\"log_file_path\":\"%s\"",
                               rule->log_file_path.c_str());
        text +=
            format_bounded(json_piece_size, ",\"since\":\"%s\", \"name\":\"%s\"}",
                           rule->nc_start_time.value_or("Waiting").c_str(), rule->nc_name.c_str());
        text += rule->next ? "," : "";
    }
    http_reply(stream, http_status::ok, content_type::json_open, text + "]}");
}

void vdrl_dt_run(nc_rules_t *rules, const std::string &serial) {
    static std::uint64_t timer_tick = 1; // never 0, at which every rule would be due
    for (nc_rules_t *rule = rules; rule != nullptr; rule = rule->next.get()) {
        const bool is_due = rule->timer != 0 && timer_tick % rule->timer == 0;
        if (is_due && !std::exchange(rule->being_checked, true)) {
            check_queue_add(rule, [rule, serial] { return begin_check(*rule, serial); });
        }
    }
    check_queue_run();
    timer_tick = timer_tick == timer_tick_wrap ? 1 : timer_tick + 1;
}

void action_declare_nc_rule(GDataOutputStream *stream, GHashTable *arguments) {
    const auto argument = [arguments](const char *name) {
        const char *value = http_argument(arguments, name);
        return std::string(value == nullptr ? "" : value);
    };
    const std::string address = argument("ip_address");
    const std::string name = argument("name");
    const std::string port_text = argument("port");
    const int port = port_text.empty() || port_text == "ICMP" ? nc_port_icmp : port_of(port_text);
    // A negative interval becomes a huge one: the rule is never due.
    const auto timer =
        static_cast<std::uint64_t>(static_cast<std::int64_t>(low_bits(argument("timer"))));
    const int nbr_of_fails = low_bits(argument("nbr_of_fails"));

    const char *reply = "{ \"success\": \"All required parameters were given and OK.\" }";
    const bool name_fits = !name.empty() && name.size() <= nc_name_max &&
                           is_safe_in_double_quotes(name) &&
                           g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr);
    const bool all_given =
        !address.empty() && is_port(port) && timer != 0 && nbr_of_fails != 0 && name_fits;
    const bool too_long = !host_fits(address, port);
    if (all_given && vdrl_dt_is_host(address, port)) {
        vdrl_dt_rule_add(nc_rules, serial_number.value_or(""), address, port, timer, nbr_of_fails,
                         name);
    } else if (all_given && too_long) {
        reply = "{ \"error\": \"Address is too long.\" }";
    } else {
        reply = "{ \"error\": \"Not all required parameters were given.\" }";
    }
    http_reply(stream, http_status::ok, content_type::json_open, reply);
}

void action_remove_nc_rule(GDataOutputStream *stream, GHashTable *arguments) {
    const char *address = http_argument(arguments, "ip_address");
    const char *port = http_argument(arguments, "port");
    const bool removed =
        address != nullptr && port != nullptr &&
        vdrl_dt_rule_remove(nc_rules, serial_number.value_or(""), address, port_of(port));
    http_reply(stream, http_status::ok, content_type::json_utf8,
               removed ? "{ \"success\": \"All required parameters were given and OK, could "
                         "remove nc-rule.\" }"
                       : "{ \"error\": \"Could not remove nc-rule.\" }");
}

void action_list_nc_rules(GDataOutputStream *stream, GHashTable *) {
    vdrl_dt_rules_print(nc_rules.get(), stream);
}

void action_download_nc_log(GDataOutputStream *stream, GHashTable *arguments) {
    const char *path = http_argument(arguments, "path");
    if (path == nullptr) {
        http_reply(stream, http_status::ok, content_type::text,
                   "Error: No storage or status given.\r\n");
        return;
    }
    http_write_header(stream, http_status::ok, content_type::text,
                      "Content-Description: File Transfer\r\nContent-Disposition: attachment; "
                      "filename=\"Network_Device_Test_Log.txt\"\r\n");
    const long_reply_turns turns(long_reply::device_test_log);
    output_file(stream, path);
}
