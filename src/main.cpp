// How the daemon comes up and goes down, and the small actions that belong to the application
// itself.

#include "advanced_debug.h"
#include "app_state.h"
#include "configlogs_inotify.h"
#include "crashcatcher_core.h"
#include "data_export.h"
#include "environment.h"
#include "event.h"
#include "fileutil.h"
#include "glib_ptr.h"
#include "http.h"
#include "log.h"
#include "main_timer.h"
#include "monitoring_session.h"
#include "ntpd.h"
#include "paramsetter.h"
#include "pcapdump.h"
#include "ptz.h"
#include "scheduled_tasks.h"
#include "session_archive.h"
#include "session_globals.h"
#include "session_list.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "syslog_triggers.h"
#include "sysutil.h"
#include "vdrl_capture.h"
#include "vdrl_http_log.h"
#include "vdrl_syslog.h"
#include "vdrl_syslog_continuous.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glib-unix.h>

namespace {

using main_loop_ptr = std::unique_ptr<GMainLoop, deleter<g_main_loop_unref>>;

constexpr const char *log_view_command = "cat /var/log/*.log* | sort";

// A logging self-test: one message of the asked severity, behind one that is always there. It lets
// the log triggers and the remote log be tried out.
void action_test(GDataOutputStream *stream, GHashTable *arguments) {
    static int refresher_count = 0;
    const char *argument = http_argument(arguments, "type");
    const std::string_view type = argument == nullptr ? "" : argument;
    http_write_header(stream, http_status::ok, "text/plain");
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
    // The one reply whose content type stands before the expiry line.
    http_write(stream, "Status: 200 OK\r\n"
                       "Pragma: no-cache\r\n"
                       "Cache-Control: no-cache\r\n"
                       "Content-Type: text/plain\r\n"
                       "Expires: -1\r\n\r\n");
    http_write_command_output(stream, log_view_command);
}

void action_instant_log_view_download(GDataOutputStream *stream, GHashTable *) {
    http_write_header(stream, http_status::ok, "text/plain",
                      "Content-Description: File Transfer\r\n"
                      "Content-Disposition: attachment; filename=\"log_viewer.txt\"\r\n");
    http_write_command_output(stream, log_view_command);
}

struct action {
    const char *name;
    http_callback handler;
};

// In the order in which they came to be.
constexpr action actions[] = {
    {"activate_monitor_session", action_activate_monitor_session},
    {"deactivate_monitor_session", action_deactivate_monitor_session},
    {"list_data", action_list_data},
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
    {"instant_log_view", action_instant_log_view},
    {"instant_log_view_download", action_instant_log_view_download},
    {"view_monitor_data", action_view_monitor_data},
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
gboolean stopped_cleanup(gpointer) noexcept {
    if (pcapdump_is_active) {
        kill_all_pcapdump();
    }
    configlogs_inotify_gio_release();
    syslog_triggers_stop_listening();
    store_systemlog_analyser_rules();
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
    return G_SOURCE_REMOVE;
}

// The first SIGTERM takes its clean-up's source away, and GLib would give the signal back its
// default action with the last one: a second SIGTERM must find something.
gboolean stay(gpointer) noexcept {
    return G_SOURCE_CONTINUE;
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
    collect_wireshark_sessions(true);
    g_unix_signal_add(SIGTERM, stopped_cleanup, nullptr);
    g_unix_signal_add(SIGTERM, stay, nullptr);
    timer_count = 0;
    // A storage that is not there at the start is no loss to log.
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
    g_timeout_add_seconds(60, timer_callback, nullptr);
    g_timeout_add_seconds(10, nc_timer_callback, nullptr);
    g_timeout_add_seconds(30, scheduled_tasks_timer_callback, nullptr);
    start_ptz_tracker();
}

} // namespace

int main() {
    start_up();
    const main_loop_ptr loop(g_main_loop_new(nullptr, FALSE));
    g_main_loop_run(loop.get());
    return 0;
}
