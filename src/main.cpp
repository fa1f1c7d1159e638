// How the daemon comes up and goes down, and the small actions that belong to the application
// itself.

#include "advanced_debug.h"
#include "app_state.h"
#include "configlogs_inotify.h"
#include "crashcatcher_core.h"
#include "data_export.h"
#include "dns.h"
#include "environment.h"
#include "event.h"
#include "fileutil.h"
#include "glib_ptr.h"
#include "http.h"
#include "log.h"
#include "loop.h"
#include "main_timer.h"
#include "metrics.h"
#include "monitoring_session.h"
#include "ntpd.h"
#include "paramsetter.h"
#include "pcapdump.h"
#include "ptz.h"
#include "report_queue.h"
#include "scheduled_tasks.h"
#include "session_archive.h"
#include "session_finder.h"
#include "session_globals.h"
#include "session_list.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "syslog_triggers.h"
#include "sysutil.h"
#include "vdrl_capture.h"
#include "vdrl_device_test.h"
#include "vdrl_http_log.h"
#include "vdrl_nettools.h"
#include "vdrl_syslog.h"
#include "vdrl_syslog_continuous.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>

namespace {

using main_loop_ptr = std::unique_ptr<GMainLoop, deleter<g_main_loop_unref>>;

constexpr const char *log_view_command = "cat /var/log/*.log* | sort";

// A logging self-test for log triggers and the remote log: a fixed message, then one of the
// requested severity.
void action_test(GDataOutputStream *stream, GHashTable *arguments) {
    static int refresher_count = 0;
    const char *argument = http_argument(arguments, "type");
    const std::string_view type = argument == nullptr ? "" : argument;
    http_write_header(stream, http_status::ok, content_type::text);
    log_info("Test %d: refresher message.", refresher_count++);
    if (type == "warn") {
        log_warning("A test warning message!");
    } else if (type == "error") {
        log_error("A test error message!");
    } else if (type == "crit") {
        log_critical("A test critical message!");
    } else if (type == "alert") {
        log_at(LOG_ALERT, "A test alert message!");
    } else if (type == "emerg") {
        log_at(LOG_EMERG, "A test emergency message!");
    } else {
        log_info("type mismatch.");
    }
    http_write(stream, "Check the logs now!\r\n");
}

void action_instant_log_view(GDataOutputStream *stream, GHashTable *) {
    // Content type before Expires, unlike http_write_header: kept, clients compare the header.
    http_write(stream, "Status: 200 OK\r\n"
                       "Pragma: no-cache\r\n"
                       "Cache-Control: no-cache\r\n"
                       "Content-Type: text/plain\r\n"
                       "Expires: -1\r\n\r\n");
    const long_reply_turns turns(long_reply::log_view);
    http_write_command_output(stream, log_view_command);
}

void action_instant_log_view_download(GDataOutputStream *stream, GHashTable *) {
    http_write_header(stream, http_status::ok, content_type::text,
                      "Content-Description: File Transfer\r\n"
                      "Content-Disposition: attachment; filename=\"log_viewer.txt\"\r\n");
    const long_reply_turns turns(long_reply::log_view);
    http_write_command_output(stream, log_view_command);
}

// --- Network tools

constexpr const char *end_of_stream = "STOPSPINNER"; // the page's busy indicator stops at it
constexpr const char *no_address = "Error: invalid parameters, use address=url";

bool has_blank_or_quote(const std::string &text) {
    return text.find_first_of(" \"") != std::string::npos;
}

void action_ping(GDataOutputStream *stream, GHashTable *arguments) {
    const char *argument = http_argument(arguments, "address");
    const std::string address = argument == nullptr ? "" : argument;
    if (has_blank_or_quote(address)) {
        return; // no reply at all
    }
    if (!vdrl_nettools_is_argument(address, nettools_ping_address_max)) {
        print_http_error(stream, no_address);
        return;
    }
    log_info("Network Tools: Ping %s", address.c_str());
    http_write_header(stream, http_status::ok, content_type::binary);
    const long_reply_turns turns(long_reply::ping);
    vdrl_nettools_ping(address, stream);
    http_write(stream, end_of_stream);
}

void action_traceroute(GDataOutputStream *stream, GHashTable *arguments) {
    static constexpr std::string_view architectures[] = {"mips",   "armv6",   "armv7",
                                                         "armv7l", "armv7hf", "aarch64"};
    static constexpr struct {
        std::string_view name;
        const char *upper_case;
    } modes[] = {{"tcp", "TCP"}, {"udp", "UDP"}, {"icmp", "ICMP"}};

    const char *argument = http_argument(arguments, "address");
    const char *mode_argument = http_argument(arguments, "mode");
    if (argument == nullptr || mode_argument == nullptr) {
        print_http_error(stream, no_address);
        return;
    }
    const std::string architecture =
        parameter_get("root.Properties.System.Architecture").value_or("");
    if (std::find(std::begin(architectures), std::end(architectures), architecture) ==
        std::end(architectures)) {
        print_http_error(
            stream,
            ("Traceroute binary for architecture \"" + architecture + "\" not found").c_str());
        return;
    }
    const std::string address = argument;
    const auto mode =
        std::find_if(std::begin(modes), std::end(modes),
                     [mode_argument](const auto &entry) { return entry.name == mode_argument; });
    if (has_blank_or_quote(address) || mode == std::end(modes)) {
        return; // no reply at all
    }
    if (!vdrl_nettools_is_argument(address, nettools_address_max)) {
        print_http_error(stream, no_address);
        return;
    }
    log_info("Traceroute: Starting Traceroute to address %s with protocol %s", address.c_str(),
             mode->upper_case);
    http_write_header(stream, http_status::ok, content_type::binary);
    const long_reply_turns turns(long_reply::traceroute);
    vdrl_nettools_traceroute(
        format_bounded(500, "/usr/local/packages/Vandrel/bin_extra/traceroute_%s --%s \"%s\" 2>&1",
                       architecture.c_str(), mode_argument, address.c_str()),
        stream);
    http_write(stream, end_of_stream);
}

void action_portcheck(GDataOutputStream *stream, GHashTable *arguments) {
    const char *address_argument = http_argument(arguments, "address");
    const char *port_argument = http_argument(arguments, "port");
    const std::string address = address_argument == nullptr ? "" : address_argument;
    const std::string port = port_argument == nullptr ? "" : port_argument;
    if (address.empty() || port.empty()) {
        print_http_error(stream, "Error: invalid parameters, use address=&port=");
        return;
    }
    constexpr std::size_t port_max = 20;
    if (has_blank_or_quote(address) || has_blank_or_quote(port) ||
        port.find('e') != std::string::npos || // no number with an exponent
        !vdrl_nettools_is_argument(address, nettools_address_max) ||
        !vdrl_nettools_is_argument(port, port_max)) {
        http_write(stream, end_of_stream);
        return;
    }
    http_write_header(stream, http_status::ok, content_type::binary);
    const long_reply_turns turns(long_reply::port_check);
    http_write(stream, vdrl_nettools_portcheck(address, port) ? "Port check successful"
                                                              : "Port check failed");
    http_write(stream, end_of_stream);
}

void action_dnslookup(GDataOutputStream *stream, GHashTable *arguments) {
    http_reply(stream, http_status::ok, content_type::text,
               "Records found are listed below: <br><br>");
    if (const char *address = http_argument(arguments, "address")) {
        const long_reply_turns turns(long_reply::name_lookup);
        write_out_dns(address, stream);
    }
}

void copy_command_output(GDataOutputStream *stream, const std::string &command) {
    command_pipe pipe(command.c_str());
    std::string piece;
    while (pipe.next_line(99, piece)) {
        if (!http_write(stream, piece)) {
            errno = 0;
            log_error("%s g_data_output_stream_put_string returned FALSE", "get_ip_address");
            break;
        }
    }
    const int status = pipe.close();
    if (status == -1) {
        log_error("[Vandrel]: error reported by pclose from command: %s", command.c_str());
    } else if (was_ended_by_signal(status)) {
        log_error("[Vandrel]: Unsuccessful command: %s", command.c_str());
    }
}

// The network share service's reply about the share of a storage group, unchanged.
void action_get_ip_address(GDataOutputStream *stream, GHashTable *arguments) {
    constexpr std::size_t parameter_max = 127;
    constexpr std::size_t object_path_max = 80; // the command has 299 bytes
    http_write_header(stream, http_status::ok, content_type::json_utf8);
    const char *group = http_argument(arguments, "group");
    const std::string name =
        "root.Storage." + std::string(group == nullptr ? "" : group) + ".DeviceNode";
    const auto node = name.size() <= parameter_max ? parameter_get(name.c_str()) : std::nullopt;
    if (!node) {
        http_write(stream, "Could not read the properties.\r\n\r\n");
        return;
    }
    const std::size_t colon = node->find(':');
    const std::string object_path = colon == std::string::npos ? "" : node->substr(colon + 1);
    if (object_path.empty()) {
        return;
    }
    if (!vdrl_nettools_is_argument(object_path, object_path_max)) {
        log_warning("The device node '%s' of '%s' can not be asked.", node->c_str(), name.c_str());
        http_write(stream, "Could not read the properties.\r\n\r\n");
        return;
    }
    for (const char *property : {"address", "share"}) {
        copy_command_output(
            stream, format_bounded(300,
                                   "dbus-send --system --print-reply --reply-timeout=3000 "
                                   "--dest=com.tarvo.NetworkShare --type=method_call \"%s\" "
                                   "org.freedesktop.DBus.Properties.Get "
                                   "string:com.tarvo.NetworkShare.Device string:%s",
                                   object_path.c_str(), property));
    }
}

struct action {
    const char *name;
    http_callback handler;
};

constexpr action actions[] = {
    {"activate_monitor_session", action_activate_monitor_session},
    {"deactivate_monitor_session", action_deactivate_monitor_session},
    {"list_data", action_list_data},
    {"get_ip_address", action_get_ip_address},
    {"zip_monitor_data", action_zip_monitor_data},
    {"get_monitor_data", action_get_monitor_data},
    {"remove", action_remove},
    {"miscellaneous", action_miscellaneous},
    {"systemlog_trigger", action_systemlog_trigger},
    {"test", action_test},
    {"activate_wireshark_session", action_activate_wireshark_session},
    {"stop_wireshark_session", action_stop_wireshark_session},
    {"view_wireshark_sessions", action_view_wireshark_sessions},
    {"download_wireshark_session", action_download_wireshark_session},
    {"remove_wireshark_session", action_remove_wireshark_session},
    {"wireshark_direct", action_wireshark_direct},
    {"list_nc_rules", action_list_nc_rules},
    {"remove_nc_rule", action_remove_nc_rule},
    {"declare_nc_rule", action_declare_nc_rule},
    {"download_nc_log", action_download_nc_log},
    {"instant_log_view", action_instant_log_view},
    {"instant_log_view_download", action_instant_log_view_download},
    {"traceroute", action_traceroute},
    {"ping", action_ping},
    {"portcheck", action_portcheck},
    {"dnslookup", action_dnslookup},
    {"view_monitor_data", action_view_monitor_data},
    {"metrics", action_metrics},
};

// Children are started with pipes put in place of 0, 1 and 2; a daemon that was started without
// them would get its first pipes there.
void open_missing_standard_descriptors() {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    errno = 0;
}

// The C library's allocator keeps what was once needed for a moment: a pool for each thread, and
// whatever the largest block so far was. A camera's memory is dear.
void give_memory_back() {
    constexpr int pools = 2;
    constexpr int kept = 128 * 1024; // bytes; as it is before the first large block
    (void)::mallopt(M_ARENA_MAX, pools);
    (void)::mallopt(M_MMAP_THRESHOLD, kept);
    (void)::mallopt(M_TRIM_THRESHOLD, kept);
}

// A client that goes away must not end the daemon. Ignoring the signal would be inherited by every
// child; a handler is not.
void survive_broken_pipes() {
    struct sigaction action_for_pipe {};
    action_for_pipe.sa_handler = [](int) {};
    action_for_pipe.sa_flags = SA_RESTART;
    ::sigaction(SIGPIPE, &action_for_pipe, nullptr);
}

// Packages are started with a PATH that lacks the administrator's folders.
void extend_path() {
    const char *path = std::getenv("PATH");
    if (path == nullptr) {
        log_error("Could not read env var PATH.");
        return;
    }
    if (std::strstr(path, "sbin") != nullptr) {
        return;
    }
    const std::string extended =
        format_bounded(256, "%s:/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin", path);
    if (::setenv("PATH", extended.c_str(), 1) != 0) {
        log_error("Could not update PATH.");
    }
}

void open_parameters() {
    parameters.reset(tv_parameter_new("Vandrel", nullptr));
    if (!parameters) {
        log_info("Failed to create a new tv parameter");
    }
}

void register_actions() {
    http_init();
    http_cgi("access.cgi", http_access_callback);
    for (const action &entry : actions) {
        http_register_action(entry.name, entry.handler);
    }
}

// SSH and FTP let the support engineer in while the package runs.
void remember_and_activate_services() {
    store_SSH_FTP_settings(parameters.get(), ssh_setting_before.emplace(),
                           ftp_setting_before.emplace());
    activate_SSH_FTP(parameters.get());
}

// Gives back what the daemon changed on the device. The loop goes on until the service manager ends
// the process, so everything that runs on it copes with what is gone; a running session stays as it
// is and is continued at the next start.
void stopped_cleanup() {
    if (pcapdump_is_active) {
        kill_all_pcapdump();
    }
    report_queue_finish(std::chrono::milliseconds::zero());
    configlogs_inotify_gio_release();
    syslog_triggers_stop_listening();
    store_systemlog_analyser_rules();
    vdrl_dt_rules_free(nc_rules);
    if (parameters && ssh_setting_before && ftp_setting_before) {
        restore_SSH_FTP_settings(parameters.get(), *ssh_setting_before, *ftp_setting_before);
        ssh_setting_before.reset();
        ftp_setting_before.reset();
        parameters.reset();
    }
    serial_number.reset();
    monitor_start_time.reset();
    _set_current_activity_folder(std::nullopt);
    _set_storage_id(std::nullopt);
    _set_secondary_storage_path(std::nullopt);
    if (vdrl_http_log_is_enabled()) {
        vdrl_http_log_disable();
        (void)system_ret("systemctl reload httpd");
    }
    vdrl_capture_stop();
    vdrl_capture_close();
    if (has_ntpd_service) {
        ntpd_service_conf_remove();
    }
    vdrl_syslog_unsubscribe();
}

gpointer ptz_thread(gpointer) noexcept {
    ptz_loop();
    return nullptr;
}

// On devices with a PTZ head, for the daemon's life.
void start_ptz_tracker() {
    for (const char *name : {"root.Brand.ProdFullName", "root.Brand.ProdType"}) {
        if (parameter_get(name).value_or("").find("PTZ") == std::string::npos) {
            continue;
        }
        GThread *thread = g_thread_try_new(nullptr, ptz_thread, nullptr, nullptr);
        if (thread != nullptr) {
            g_thread_unref(thread);
        }
        return;
    }
}

// Later steps depend on the state that earlier ones leave.
void start_up() {
    open_missing_standard_descriptors();
    survive_broken_pipes();
    give_memory_back();
    log_install_out_of_memory_handler();

    log_open();
    extend_path();
    collect_only_from_this_camera = true;
    monitory_active = false;
    open_parameters();
    has_libcapture = vdrl_capture_load();
    register_actions();
    read_serial_number();
    apache2_included = is_directory("/etc/apache2/conf.d");
    syslog_program_installed = vdrl_syslog_get_variant();
    vdrl_syslog_subscribe();
    event_init();
    wait_and_collect_monitoring_sessions();
    collect_action_rules();
    end_left_over_capture();
    collect_wireshark_sessions(true);
    loop_on_termination(stopped_cleanup);
    nc_rules = vdrl_dt_rules_read_from_file();
    timer_count = 0;
    // Not logged: a storage that is missing at start was not lost.
    (void)determine_if_this_storage_is_ok("SD_DISK", false);
    if (!resume_monitoring_session()) {
        log_info("Vandrel version %s, compiled: %s %s", VANDREL_VERSION, __DATE__, __TIME__);
    }
    if (core_pattern_is_left_behind() && !(monitory_active && storage_id)) {
        reset_core_pattern(); // of a session that an earlier run could not end
    }
    remember_and_activate_services();
    read_old_systemlog_analyser_rules(crash_report_log_message_callback);
    read_scheduled_tasks();
    syslog_triggers_begin_listening();
    init_environment_monitor_settings();
    has_ntpd_service = ntpd_service_exists();
    if (has_ntpd_service) {
        ntpd_service_conf_add();
    }
    loop_add_seconds(60, timer_callback, nullptr);
    loop_add_seconds(10, nc_timer_callback, nullptr);
    loop_add_seconds(30, scheduled_tasks_timer_callback, nullptr);
    start_ptz_tracker();
}

} // namespace

int main() {
    start_up();
    const main_loop_ptr loop(g_main_loop_new(nullptr, FALSE));
    g_main_loop_run(loop.get());
    return 0;
}
