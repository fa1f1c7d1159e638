#include "monitoring_session.h"

#include "app_state.h"
#include "configlogs_inotify.h"
#include "crash_report.h"
#include "crashcatcher_inotify.h"
#include "csv.h"
#include "dateutil.h"
#include "debug_mode.h"
#include "eventlistener.h"
#include "fileutil.h"
#include "kernel_crash.h"
#include "koral_cgi_monitoring.h"
#include "log.h"
#include "loop.h"
#include "onvif.h"
#include "report_queue.h"
#include "schedule.h"
#include "scheduled_tasks.h"
#include "session_archive.h"
#include "session_finder.h"
#include "session_globals.h"
#include "session_info.h"
#include "shell_word.h"
#include "snapshots.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "syslog_triggers.h"
#include "sysutil.h"
#include "vdrl_capture.h"
#include "vdrl_http_log.h"
#include "vdrl_syslog_continuous.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using namespace std::chrono_literals;

// The serial number was not known at start.
bool resume_waits_for_serial = false;

// Pending after a restart: the device log of that time has to be appended to the session.
bool device_log_is_due = false;

// No minute of the session has found its storage yet.
bool is_first_use = false;

// Of the running session: seconds as text, "" for no images.
std::string image_interval;

std::string continuous_syslog_path(const std::string &directory) {
    return format_bounded(session_directory_size, "%s/%s/%s/%s", directory.c_str(),
                          "system_monitoring", "monitoring_basic", "Continuous_Syslog.txt");
}

// The device log of the time around the restart, which the continuous log could not follow.
void append_device_log(const std::string &directory) {
    const std::string path = continuous_syslog_path(directory);
    const unique_fd file = file_descriptor(path.c_str(), O_WRONLY | O_CREAT | O_APPEND);
    if (file) {
        (void)system_ret("cat /var/log/info.log /var/log/error.log | sort &", file.get());
    } else {
        log_cannot_open(path.c_str());
    }
}

// --- Starting one

constexpr std::size_t interval_digits_max = 9;
constexpr std::size_t creation_command_max = 252;

constexpr http_status ok = http_status::ok;

bool is_interval(const char *value) {
    return value == nullptr ||
           (std::strlen(value) <= interval_digits_max && plain_decimal(value).has_value());
}

std::optional<std::string> optional_argument(GHashTable *arguments, const char *name) {
    const char *value = http_argument(arguments, name);
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

// Sets the flags of the advanced debug mode that a request asks for. "before": flags set earlier.
//
//     mode        log_interval  sets           proceed        with_interval
//     both        given         schedule, log  yes            yes
//     interval    given         schedule       yes            yes
//     log         either        log            yes            given and schedule before
//     both        missing       log            yes            no
//     any other   either        nothing        if any before  given and schedule before
struct debug_decision {
    bool proceed = true;
    bool with_interval = false; // the creation script gets the interval
};

debug_decision decide_debug_mode(const session_request &request) {
    const std::string &mode = *request.debug_mode;
    const bool known = mode == "both" || mode == "interval" || mode == "log";
    if (request.log_interval && (mode == "both" || mode == "interval")) {
        advanced_debug_mode_crash_interval_activated = true;
        if (mode == "both") {
            advanced_debug_mode_crash_log_message_activated = true;
        }
        return {true, true};
    }
    if (known && mode != "interval") {
        advanced_debug_mode_crash_log_message_activated = true;
        return {true, advanced_debug_mode_crash_interval_activated && request.log_interval};
    }
    if (advanced_debug_mode_crash_interval_activated) {
        return {true, request.log_interval.has_value()};
    }
    return {advanced_debug_mode_crash_log_message_activated, false};
}

// A folder name that no session has yet: the stamp knows only seconds.
std::string new_folder_name(const std::string &root) {
    std::string name = date_format_now(date_format_folder);
    for (int tries = 0; tries < 30 && !name.empty() && is_directory((root + name).c_str());
         ++tries) {
        std::this_thread::sleep_for(100ms);
        name = date_format_now(date_format_folder);
    }
    return is_directory((root + name).c_str()) ? "" : name;
}

// Runs the script that makes the session's tree and current_monitoring_session.txt; false, and
// logged, when it left no session.
bool create_session_tree(const session_request &request, bool with_interval,
                         const std::string &directory) {
    std::string command = format_text(
        "/usr/local/packages/Vandrel/monitory_creator.sh \"%s\" \"%s\" \"%s\" \"%s\" \"%s\"",
        request.storage.c_str(), serial_number.value_or("").c_str(),
        current_activity_folder->c_str(), monitor_start_time->c_str(),
        request.image_interval.value_or("").c_str());
    if (with_interval) {
        command += format_text(
            " %u", static_cast<unsigned>(decimal_prefix_unsigned(*request.log_interval)));
    }
    errno = 0;
    if (command.size() > creation_command_max || !is_safe_in_double_quotes(*monitor_start_time)) {
        log_error("Could not start monitoring session: The start time '%s' can not be used.",
                  monitor_start_time->c_str());
        return false;
    }
    // A script that was killed may have made the folder, but not the file for the resume.
    if (system_ret(command.c_str()) == system_ret_signal) {
        dir_remove_recursive(directory.c_str());
    }
    if (!is_directory(directory.c_str())) {
        log_error("Could not start monitoring session: '%s' was not created.", directory.c_str());
        return false;
    }
    return true;
}

void link_continuous_syslog(const std::string &directory) {
    if (::symlink(continuous_syslog_path(directory).c_str(), continuous_syslog_link) != 0) {
        log_error("Could not create symlink to Continuous_Syslog.txt, Continuous Syslog will be "
                  "empty.");
    }
}

void log_start(const session_request &request, unsigned long interval) {
    log_info("Monitoring session started (%s)",
             storage_id ? storage_id->c_str() : "Internal Storage");
    if (!request.debug_mode || !storage_id) {
        return;
    }
    log_info("Advanced Debug Mode: Activated");
    if (advanced_debug_mode_crash_interval_activated) {
        log_info("Advanced Debug Mode: Scheduled Crash Report generation every %lu hours",
                 interval / 60);
    }
    if (advanced_debug_mode_crash_log_message_activated) {
        log_info("Advanced Debug Mode: Crash Report generation based on Log Message configured.");
    }
}

// `interval`: minutes between scheduled crash reports, if any.
crash_report_plan plan_of_crash_reports(std::optional<unsigned long> interval) {
    crash_report_plan plan{interval, std::nullopt};
    if (!advanced_debug_mode_crash_log_message_activated) {
        return plan;
    }
    std::string &text = plan.log_messages.emplace();
    for (const auto *rule = get_systemlog_list(); rule != nullptr; rule = rule->next.get()) {
        if (rule->is_subscribed) {
            text += text.empty() ? "Log messages:\r\n" : "";
            text += format_text("        %s [limit: %u, cooldown: %u min]\r\n",
                                rule->key_word.c_str(), rule->limit, rule->cooldown_ui / 60);
        }
    }
    return plan;
}

// --- Completing one

// For pending reports; the archive holds what is finished by then.
constexpr auto report_patience = 30s;

// The reply is sent before a restart of the device.
void reply_or_restart(GDataOutputStream *stream, int result, const char *done,
                      const char *restarts) {
    http_reply(stream, ok, content_type::text_utf8, result == 0 ? done : restarts);
    if (result != 0) {
        g_output_stream_close(G_OUTPUT_STREAM(stream), nullptr, nullptr);
        (void)system_ret("/sbin/reboot");
    }
}

// --- What a session needs on its storage

void sweep_leftovers(const std::string &) {
    if (std::exchange(is_first_use, false) || connection_lost_count > 0) {
        sweep_zip_leftovers(*secondary_storage_path);
    }
}

// A power cut while the session was being started left this one out, and the next.
void keep_session_information(const std::string &directory) {
    if (!is_file((directory + "/Session_Information.txt").c_str())) {
        const unsigned long interval = advanced_debug_mode_crash_recurrence;
        write_session_information(
            directory,
            plan_of_crash_reports(interval > 0 ? std::optional(interval) : std::nullopt));
    }
}

void keep_continuous_syslog(const std::string &directory) {
    struct stat status {};
    if (::lstat(continuous_syslog_link, &status) != 0) {
        link_continuous_syslog(directory);
    }
}

void keep_http_calls(const std::string &) {
    koral_cgi_monitor_mend();
    errno = 0;
}

void append_due_device_log(const std::string &directory) {
    if (std::exchange(device_log_is_due, false)) {
        append_device_log(directory);
    }
}

void keep_core_watch(const std::string &directory) {
    if (storage_id) {
        create_dir_monitor(directory);
    }
}

// Only on an external storage, which has room for them; an interval of 0 or 1 means none.
void _start_image_capturing(const std::string &directory) {
    constexpr unsigned long long interval_max = 1'000'000'000; // of nine digits
    const auto seconds = std::min(decimal_prefix_unsigned(image_interval), interval_max);
    if (storage_id && seconds > 1) {
        vdrl_capture_keep_going(parameters.get(), static_cast<int>(seconds),
                                format_bounded(400, "%s/%s/%s", directory.c_str(),
                                               "system_monitoring", "monitoring_snapshots"));
    }
}

constexpr duty storage_needs[] = {
    {1, "archives' leftovers", sweep_leftovers},
    {1, "information file", keep_session_information},
    {1, "continuous log", keep_continuous_syslog},
    {1, "HTTP calls", keep_http_calls},
    {1, "device log of a restart", append_due_device_log},
    {1, "package configurations", configlogs_inotify_gio_keep_watching},
    {1, "core dumps", keep_core_watch},
    {1, "images", _start_image_capturing},
    {1, "event listener", eventlistener_keep_running},
};

void clear_session() {
    _set_secondary_storage_path(std::nullopt);
    _set_storage_id(std::nullopt);
    _set_current_activity_folder(std::nullopt);
}

} // namespace

void action_activate_monitor_session(GDataOutputStream *stream, GHashTable *arguments) {
    collect_only_from_this_camera = true;
    if (monitory_active) {
        log_error("Can not start new monitoring session while another one is running.");
        http_reply(stream, ok, content_type::text_utf8,
                   "Can not start new activity while another is running.");
        return;
    }
    const char *storage = http_argument(arguments, "storage");
    if (storage == nullptr) {
        log_error("Storage is required in order to create a new monitor session.");
        http_reply(stream, ok, content_type::text_utf8,
                   "Error: Storage is required in order to create a new monitor session, like "
                   "this: access.cgi?storage=SD_DISK");
        return;
    }
    if (std::strcmp(storage, "localdata") != 0 &&
        (!storage_root_of(storage) || !determine_if_this_storage_is_ok(storage, true))) {
        log_error("The given storage for monitor session was not valid.");
        http_reply(stream, ok, content_type::text_utf8,
                   "Error: The given storage destination was not valid and the VELA failed to "
                   "create a new monitor session.");
        return;
    }
    for (const char *name : {"log_interval", "save_image_interval"}) {
        if (!is_interval(http_argument(arguments, name))) {
            log_error("The given %s for monitor session was not valid.", name);
            http_reply(stream, ok, content_type::text_utf8,
                       format_text("Error: The %s must be a plain decimal number of at most %zu "
                                   "digits.",
                                   name, interval_digits_max));
            return;
        }
    }
    const int result = _start_monitoring_session(
        {storage, optional_argument(arguments, "recurrence_crash_reports"),
         optional_argument(arguments, "log_interval"),
         optional_argument(arguments, "save_image_interval")});
    reply_or_restart(stream, result, "Session started.", "Session will start after reboot.");
}

int _start_monitoring_session(const session_request &request) {
    const bool internal = request.storage == "localdata";
    const std::string root = internal ? localdata_root : storage_root_of(request.storage).value();
    monitor_start_time = date_format_now(date_format_information);
    // The first session on a new card: free space can only be asked for an existing root.
    ::mkdir(root.c_str(), 0700);
    if (!folder_descriptor(root.c_str())) {
        log_error("Could not start monitoring session: '%s' can not be used.", root.c_str());
        return 0;
    }
    const std::string folder = new_folder_name(root);
    errno = 0;
    if (folder.empty()) {
        log_error("Could not start monitoring session: Could not get current date.");
        return 0;
    }
    _set_current_activity_folder(folder);
    _set_secondary_storage_path(root);
    _set_storage_id(internal ? std::nullopt : std::optional(request.storage));
    sweep_zip_leftovers(root);
    if (!check_partition_usage(root.c_str())) {
        log_error("Could not start monitoring session: Secondary storage is soon out of disk "
                  "space.");
        return 0;
    }
    const bool interval_before = advanced_debug_mode_crash_interval_activated;
    const bool log_message_before = advanced_debug_mode_crash_log_message_activated;
    debug_decision debug;
    unsigned long interval = 0;
    if (request.debug_mode && !internal) {
        debug = decide_debug_mode(request);
        interval =
            static_cast<unsigned long>(decimal_prefix_unsigned(request.log_interval.value_or("")));
        if (!debug.proceed) {
            return 0;
        }
    }
    const std::string directory = session_directory().value();
    if (!create_session_tree(request, debug.with_interval, directory)) {
        // So that no restart resumes a session that did not begin.
        (void)empty_file_if_possible(current_monitoring_session_path);
        advanced_debug_mode_crash_interval_activated = interval_before;
        advanced_debug_mode_crash_log_message_activated = log_message_before;
        return 0;
    }
    (void)vdrl_http_log_setup();
    file_remove(continuous_syslog_link); // a stale one points to an older session
    vdrl_syslog_take_lines();            // lines from before the session are skipped
    link_continuous_syslog(directory);
    create_two_interrupts_snapshots();
    create_serverreport_snapshot(directory);
    onvif_copy_media_conf(directory);
    log_start(request, interval);
    const bool has_schedule = request.debug_mode && advanced_debug_mode_crash_interval_activated;
    write_session_information(
        directory, plan_of_crash_reports(has_schedule ? std::optional(interval) : std::nullopt));
    if (storage_id && setup_kernel_crash_monitor(directory, serial_number) != 0) {
        return 1;
    }
    if (storage_id && request.debug_mode && interval > 0) {
        advanced_debug_mode_crash_recurrence = interval;
        advanced_debug_mode_crash_recurrence_tick = 0;
    }
    forget_append_failures();
    crash_report_being_created = 0;
    monitor_active_minutes_count = 0;
    collected_data_points = 0;
    connection_lost_count = 0;
    setup_session(directory, request.image_interval.value_or(""));
    loop_add_seconds(10, reload_httpd_now, nullptr);
    return 0;
}

void action_deactivate_monitor_session(GDataOutputStream *stream, GHashTable *) {
    if (!monitory_active) {
        log_error("No monitor session is activated, can not deactive.");
        http_reply(stream, ok, content_type::text_utf8,
                   "No monitor session is activated, can not deactivate anything.");
        return;
    }
    const auto directory = session_directory();
    if (!directory) {
        log_error("Error: Path to secondary storage for active monitor session is null.");
        http_reply(stream, ok, content_type::text_utf8,
                   "Error: Path to secondary storage for active monitor session is null.");
        return;
    }
    const int result = deactivate_monitor_session(*directory);
    reply_or_restart(stream, result, "Session deactivated.",
                     "Session deactivation requires reboot.");
}

int deactivate_monitor_session(const std::string &directory) {
    collect_only_from_this_camera = true;
    if (storage_id && is_directory(directory.c_str())) {
        // Dumps of the last minute; brings the listings up to date as well.
        update_kernel_crash_status(directory, serial_number);
    }
    monitory_active = false;
    device_log_is_due = false;
    image_interval.clear();
    vdrl_capture_stop();
    eventlistener_stop();
    configlogs_inotify_gio_release();
    vdrl_http_log_disable();
    vdrl_syslog_take_lines();
    file_remove(continuous_syslog_link);
    // Without the storage there is nothing to complete, and nothing is made in its mount point.
    const bool storage_is_there = is_directory(directory.c_str());
    if (storage_is_there) {
        finish_crash_report(directory);
        onvif_copy_media_conf(directory);
        complete_signature(directory);
        if (!record_session_stop(directory)) {
            log_error("The stop of the monitoring session could not be recorded in '%s'.",
                      directory.c_str());
        }
    } else {
        log_warning(
            "The storage of the monitoring session is not there: its stop time, its size, its "
            "last log lines and reports and its archive are left out.");
    }
    if (!empty_file_if_possible(current_monitoring_session_path)) {
        log_cannot_open(current_monitoring_session_path);
    }
    wait_and_collect_monitoring_sessions();
    if (storage_is_there) {
        create_serverreport_snapshot(directory);
        report_queue_finish(report_patience);
        append_session_size(directory);
    }
    log_info("Monitoring session stopped. Monitoring session duration: %lu Days %lu hours %lu "
             "minutes",
             monitor_active_minutes_count / 1440, monitor_active_minutes_count / 60 % 24,
             monitor_active_minutes_count % 60);
    advanced_debug_mode_crash_recurrence = 0;
    advanced_debug_mode_crash_recurrence_tick = 1;
    if (advanced_debug_mode_crash_log_message_activated) {
        remove_all_subscribed_triggers();
    }
    advanced_debug_mode_crash_interval_activated = false;
    advanced_debug_mode_crash_log_message_activated = false;
    if (storage_id) {
        inotify_gio_release();
    }
    if (apache2_included) {
        koral_cgi_monitor_release();
        loop_add_seconds(6, reload_httpd_now, nullptr);
    }
    const int result = disable_kernel_crash_monitor(serial_number);
    const std::string archive = session_archive_path(directory);
    if (is_file(archive.c_str())) {
        file_remove(archive.c_str());
    }
    if (storage_is_there && result == 0) {
        zip_session(directory);
    }
    clear_session();
    return result;
}

bool resume_monitoring_session() {
    std::optional<stored_session> stored = read_stored_session();
    if (!stored) {
        return false;
    }
    // The serial number is part of the path on an external storage.
    resume_waits_for_serial = stored->id && !serial_number;
    if (resume_waits_for_serial) {
        log_warning("The monitoring session is continued once the serial number is known.");
        return false;
    }
    if (!names_a_session_directory(*stored)) {
        log_warning("No monitoring session can be continued from '%s': storage or folder is "
                    "missing or can not be used.",
                    current_monitoring_session_path);
        return false;
    }
    _set_secondary_storage_path(stored->root);
    _set_storage_id(stored->id);
    _set_current_activity_folder(stored->folder);
    if (stored->start_time) {
        monitor_start_time = stored->start_time;
    }
    if (stored->crash_recurrence) {
        advanced_debug_mode_crash_recurrence = *stored->crash_recurrence;
        advanced_debug_mode_crash_recurrence_tick = 0;
    }
    log_info("Continuing System Monitoring Session. Device was rebooted or lost power.");
    if (stored->id && kernel_crash_waits_for_restart()) {
        log_warning("Kernel crash dumps are not saved until the device has been restarted.");
    }
    device_log_is_due = true;
    setup_session(session_directory().value(), stored->image_interval);
    return true;
}

void resume_waiting_session() {
    if (resume_waits_for_serial && serial_number && !monitory_active) {
        (void)resume_monitoring_session();
    }
}

void setup_session(const std::string &directory, const std::string &session_image_interval) {
    monitory_active = true;
    is_first_use = true;
    image_interval = session_image_interval;
    configlogs_inotify_gio_keep_watching(directory);
    if (apache2_included) {
        if (storage_id) {
            set_http_edge_storage(directory);
        }
        koral_cgi_monitor_setup();
    }
    start_what_needs_the_storage(directory);
}

void start_what_needs_the_storage(const std::string &directory) {
    run_due(storage_needs, 0, directory);
}
