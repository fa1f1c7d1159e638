#include "vdrl_syslog_remote.h"

#include "app_state.h"
#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "strutil.h"
#include "sysutil.h"
#include "vdrl_syslog.h"

#include <algorithm>
#include <gio/gio.h>
#include <string_view>

std::optional<std::string> current_syslog_server;

namespace {

constexpr const char *rsyslog_path = "/etc/rsyslog.d/40-remote_log.conf";
constexpr const char *scratch_path = "/usr/local/packages/Vandrel/localdata/40-remote_log_tmp.conf";
constexpr const char *syslog_ng_path = "/etc/syslog-ng.d/remote.conf";
constexpr const char *info_path = "/usr/local/packages/Vandrel/localdata/syslog_server.info";

constexpr std::string_view forwarding = "*.* @";
constexpr std::size_t line_max = 199;
constexpr guint restart_delay_ms = 2000;

// --- Addresses

// So that the forwarding line fits line_max and is found again.
constexpr std::size_t address_max = line_max - forwarding.size() - sizeof "[]\n" + 1;

bool is_letter_or_digit(char ch) {
    return g_ascii_isalnum(ch) != 0;
}

// Names and IPv4 addresses.
bool is_host(std::string_view text) {
    return !text.empty() && is_letter_or_digit(text.front()) &&
           std::all_of(text.begin(), text.end(), [](char ch) {
               return is_letter_or_digit(ch) || ch == '.' || ch == '-' || ch == '_';
           });
}

bool is_ipv6(const std::string &text) {
    return text.find_first_not_of("0123456789abcdefABCDEF:.") == std::string::npos &&
           text.find(':') != std::string::npos && g_hostname_is_ip_address(text.c_str()) != FALSE;
}

bool is_port(std::string_view text) {
    const auto port = plain_decimal(text);
    return port && *port >= 1 && *port <= 65535;
}

// "HOST:PORT", "[ADDRESS]", "[ADDRESS]:PORT"
bool is_host_with_port(const std::string &text) {
    const auto bracket = text.rfind(']');
    const auto colon = text.rfind(':');
    const bool has_port =
        colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
    if (has_port && !is_port(std::string_view(text).substr(colon + 1))) {
        return false;
    }
    const std::string host = has_port ? text.substr(0, colon) : text;
    if (host.starts_with('[') && host.ends_with(']')) {
        return is_ipv6(host.substr(1, host.size() - 2));
    }
    return has_port && is_host(host);
}

// --- Files

// The text with a newline at its end, unless it is empty.
void end_last_line(std::string &text) {
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
}

// The configuration without its forwarding lines, or nothing after a warning.
std::optional<std::string> other_lines() {
    const unique_file file = file_open_or_warn(rsyslog_path, "r");
    if (!file) {
        return std::nullopt;
    }
    std::string kept;
    std::string line;
    bool at_line_start = true; // a longer line comes in pieces
    bool drop = false;
    while (read_line(file.get(), line_max, line)) {
        if (at_line_start) {
            drop = line.starts_with(forwarding);
        }
        if (!drop) {
            kept += line;
        }
        at_line_start = line.ends_with('\n');
    }
    end_last_line(kept);
    return kept;
}

// Through the scratch file, which is renamed where it lies on the same file system. False after a
// warning.
bool rewrite_rsyslog_file(const std::string &text) {
    if (!file_replace(scratch_path, text)) {
        return false;
    }
    const bool replaced =
        file_rename(scratch_path, rsyslog_path) || file_replace(rsyslog_path, text);
    file_remove(scratch_path);
    return replaced;
}

// --- Set-up

void send_test_message() {
    log_info("Syslog: Sending Test Message to configured syslog server.");
    log_info("Syslog: This is a test message. The configuration worked if you see this message in "
             "your syslog server!");
}

guint rsyslog_restart = 0; // the timeout that is due
bool test_after_restart = false;

gboolean restart_rsyslog_now(gpointer) noexcept {
    rsyslog_restart = 0;
    (void)system_ret("systemctl restart rsyslog syslog.socket 2> "
                     "/usr/local/packages/Vandrel/localdata/felmeddelande.restart");
    // A test message before the restart would go to the previous server.
    if (std::exchange(test_after_restart, false)) {
        send_test_message();
    }
    return G_SOURCE_REMOVE;
}

void note_started(const char *address, const char *program) {
    current_syslog_server = address;
    log_info("Started Syslog Server: Syslogging to ip-address %s (using %s).", address, program);
}

int setup_syslog_ng(const char *address) {
    const std::string configuration =
        format_text("destination d_remote-syslog { network(\"%s\" transport(\"udp\") port(514)%s); "
                    "};\nlog { source(s_system); destination(d_remote-syslog); };\n\n",
                    address, is_ipv6(address) ? " ip-protocol(6)" : "");
    if (!file_replace(syslog_ng_path, configuration) ||
        !file_replace(info_path, std::string(address) + "\n")) {
        return syslog_remote_failed;
    }
    vdrl_syslog_remote_restart_syslog();
    note_started(address, "syslog-ng");
    send_test_message();
    return syslog_remote_syslog_ng;
}

int setup_rsyslog(const char *address) {
    // Without brackets, what follows the first colon would be taken for a port.
    const std::string line = std::string(forwarding) +
                             (is_ipv6(address) ? format_text("[%s]", address) : address) + "\n";
    if (!is_file(rsyslog_path)) {
        // The first server is neither remembered nor logged: kept, clients see it.
        if (!file_replace(rsyslog_path, line)) {
            return syslog_remote_failed;
        }
        vdrl_syslog_remote_restart_syslog();
        return syslog_remote_rsyslog;
    }
    const auto kept = other_lines();
    if (!kept || !file_replace(info_path, std::string(address) + "\n") ||
        !rewrite_rsyslog_file(*kept + line)) {
        return syslog_remote_failed;
    }
    vdrl_syslog_remote_restart_syslog();
    test_after_restart = true;
    note_started(address, "rsyslog");
    return syslog_remote_rsyslog;
}

} // namespace

bool vdrl_syslog_remote_is_address(const char *address) {
    const std::string text(address);
    return text.size() <= address_max &&
           (is_host(text) || is_ipv6(text) ||
            (syslog_program_installed == syslog_variant_rsyslog && is_host_with_port(text)));
}

int vdrl_syslog_remote_setup(const char *address) {
    switch (syslog_program_installed) {
    case syslog_variant_syslog_ng:
        return setup_syslog_ng(address);
    case syslog_variant_rsyslog:
        return setup_rsyslog(address);
    default:
        return syslog_remote_failed;
    }
}

int vdrl_syslog_remote_remove() {
    if (syslog_program_installed == syslog_variant_rsyslog) {
        const auto kept = other_lines();
        if (!kept || !rewrite_rsyslog_file(*kept)) {
            return -1;
        }
    } else {
        file_remove(syslog_ng_path);
    }
    file_remove(info_path);
    test_after_restart = false;
    log_info("Stopped Syslog Server: Syslogging to ip-address %s no more.",
             current_syslog_server.value_or("[NULL]").c_str());
    current_syslog_server.reset();
    return 0;
}

void vdrl_syslog_remote_restart_syslog() {
    if (syslog_program_installed == syslog_variant_syslog_ng) {
        (void)system_ret("systemctl restart syslog-ng syslog.socket 2> "
                         "/usr/local/packages/Vandrel/localdata/felmeddelande_restart_syslog.txt");
    } else if (syslog_program_installed == syslog_variant_rsyslog && rsyslog_restart == 0) {
        rsyslog_restart = loop_add_ms(restart_delay_ms, restart_rsyslog_now, nullptr);
    }
}
