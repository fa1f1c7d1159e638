#include "main_timer.h"

#include "advanced_debug.h"
#include "app_state.h"
#include "csv.h"
#include "environment.h"
#include "filehandler.h"
#include "fileutil.h"
#include "kernel_crash.h"
#include "koral_cgi_monitoring.h"
#include "log.h"
#include "loop.h"
#include "monitoring_session.h"
#include "ntpd.h"
#include "onvif.h"
#include "pcapdump.h"
#include "process_list.h"
#include "scheduled_tasks.h"
#include "session_finder.h"
#include "session_globals.h"
#include "session_info.h"
#include "snapshots.h"
#include "storage_investigator.h"
#include "strutil.h"
#include "syslog_triggers.h"
#include "sysutil.h"
#include "vdrl_device_test.h"
#include "vdrl_http_log.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr unsigned long timer_count_wrap = 60'000'000;
// Above the longest command that the loop waits for. The service manager restarts the daemon, which
// resumes its session.
constexpr std::chrono::minutes stillness_max{15};

std::string monitoring_folder(const std::string &session, const char *folder) {
    return format_bounded(session_directory_size, "%s/%s/%s", session.c_str(), "system_monitoring",
                          folder);
}

// --- Duties that are more than one call

void copy_kernel_crashes(const std::string &session) {
    update_kernel_crash_status(session, serial_number);
}

void note_storage_is_back(const std::string &) {
    if (connection_lost_count > 0) {
        // Days, hours modulo 24, but total minutes: kept, clients compare this text.
        log_info("Connection to edge storage location re-established, connection was lost since "
                 "%lu days %lu hours %lu minutes. Continuing system monitoring session.",
                 connection_lost_count / 1440, connection_lost_count / 60 % 24,
                 connection_lost_count);
    }
    connection_lost_count = 0;
}

void keep_http_log(const std::string &) {
    if (apache2_included && !vdrl_http_log_is_enabled() && vdrl_http_log_setup()) {
        (void)system_ret("systemctl reload httpd");
    }
}

void log_consumption_soon(const std::string &) {
    loop_add_seconds(10, storage_consumption_log_message, nullptr);
}

void take_interrupts_snapshots(const std::string &) {
    create_two_interrupts_snapshots();
}

void run_vmstatus(const std::string &session) {
    shellscript_invoker(monitoring_folder(session, "monitoring_vmstatus"), "vmstatus_monitoring");
}

void run_topstatus(const std::string &session) {
    shellscript_invoker(monitoring_folder(session, "monitoring_topstatus"), "topstatus_monitoring");
}

void store_condition(const std::string &session) {
    const std::string folder = monitoring_folder(session, "monitoring_environment");
    store_temperatures_celsius(folder);
    store_heater_status(folder);
    store_fan_status(folder);
}

void store_self(const std::string &session) {
    store_self_monitoring(monitoring_folder(session, "monitoring_self"));
}

void run_power(const std::string &session) {
    shellscript_invoker(monitoring_folder(session, "monitoring_environment"), "power");
}

void store_http_calls(const std::string &) {
    if (apache2_included) {
        koral_cgi_store();
        if (parameters) {
            koral_output_to_file();
        }
    }
}

void report_http_calls(const std::string &session) {
    file_replace((monitoring_folder(session, "monitoring_koral") + "/koral_status.txt").c_str(),
                 koral_output_state_of_the_table());
}

void update_session_lists(const std::string &) {
    wait_and_collect_monitoring_sessions();
}

// --- The schedules

// The session whose storage is healthy by the service's word but took no row: it is read-only, or
// its server refuses writes.
std::string refusing_session;

void collect(const std::string &session) {
    (void)take_append_counts();
    run_due(collection_block(), 0, session);
    const append_counts counts = take_append_counts();
    if (counts.failed == 0) {
        forget_append_failures();
    } else if (counts.written == 0 && storage_id) {
        refusing_session = session;
    }
}

constexpr duty external_schedule[] = {
    {1, "what needs the storage", start_what_needs_the_storage},
    {1, "kernel crashes", copy_kernel_crashes},
    {1, "storage is back", note_storage_is_back},
    {1, "HTTP log", keep_http_log},
    {120, "storage consumption", log_consumption_soon},
    {1, "advanced debug", advanced_debug_tick},
    {120, "interrupts", take_interrupts_snapshots},
    {120, "server report", create_serverreport_snapshot},
    {120, "media configuration", onvif_copy_media_conf},
    {2, "collection", collect},
    {2, "streams", store_video_stream_history_no_retention},
    {2, "radar", store_radar_data},
    {2, "session lists", update_session_lists},
};

constexpr duty collection_duties[] = {
    {1, "load", store_load_avg_info_no_retention},
    {1, "process memory", run_vmstatus},
    {1, "process load", run_topstatus},
    {1, "page faults", store_page_faults},
    {1, "free pages", store_buddyinfo},
    {1, "device tests", create_nc_snapshot},
    {1, "memory", store_proc_meminfo},
    {1, "slab caches", store_slab_info},
    {1, "packages", vela_monitor_status_snapshot},
    {1, "network", store_proc_net_dev},
    {1, "temperatures", store_condition},
    {1, "power", run_power},
    {1, "own cost", store_self},
    {1, "HTTP calls", store_http_calls},
    {1, "data points", update_number_of_collected_data_points},
};

constexpr duty internal_schedule[] = {
    {1, "what needs the storage", start_what_needs_the_storage},
    {1, "HTTP log", keep_http_log},
    {360, "server report", create_serverreport_snapshot},
    {360, "media configuration", onvif_copy_media_conf},
    {120, "HTTP calls", report_http_calls},
    {2, "device tests", create_nc_snapshot},
    {120, "storage consumption", log_consumption_soon},
};

// --- A tick's work for a session

void note_storage_is_lost() {
    if (connection_lost_count == 0) {
        errno = 0;
        log_error("Lost connection to edge storage location, no data can be saved.");
        collect_action_rules();
        collect_monitoring_sessions(collect_only_from_this_camera ? serial_number : std::nullopt);
    }
    ++connection_lost_count;
}

// Whether the session's storage accepts writes, tested anew if it has refused them.
bool takes_writes(const std::string &session) {
    if (refusing_session != session) {
        return true;
    }
    const std::string trial = session + "/.tmp_trial";
    const unique_file file = file_open(trial.c_str(), "w");
    const bool written = file && std::fputs(std::string(4096, '.').c_str(), file.get()) >= 0 &&
                         std::fflush(file.get()) == 0 && ::fsync(::fileno(file.get())) == 0;
    file_remove(trial.c_str());
    if (written) {
        refusing_session.clear();
    }
    return written;
}

session_storage storage_look;

enum class space { enough, too_little, unknown };

space free_space() {
    bool has_hung = false;
    const int percent = get_storage_use_pcent(secondary_storage_path->c_str(), &has_hung);
    storage_look.percent_used = percent < 0 ? std::nullopt : std::optional(percent);
    if (has_hung) {
        return space::enough; // the tool hung, which says nothing of the storage
    }
    return percent < 0 ? space::unknown
                       : (storage_has_room(percent) ? space::enough : space::too_little);
}

// When the service's client hangs, the last state counts as long as the session's folder exists.
bool storage_is_usable(const std::string &session) {
    static bool last = true;
    const auto answer = ask_whether_storage_is_ok(storage_id->c_str(), true);
    last = answer.value_or(last && is_directory(session.c_str()));
    return last;
}

void session_tick(unsigned long tick, const std::string &session) {
    space left = free_space();
    const bool external = storage_id.has_value();
    // An external storage that has gone has no usage to ask for: it is lost, not full. So is one
    // that holds another card, or does not take what is written.
    const bool is_there = is_directory(session.c_str());
    const bool may_be_lost = external && (left != space::too_little || !is_there);
    const bool usable =
        !may_be_lost || (storage_is_usable(session) && is_there && takes_writes(session));
    if (left == space::unknown && usable) {
        left = free_space(); // the storage may have come back between the two questions
    }
    if ((left == space::too_little && (is_there || !external)) ||
        (left == space::unknown && usable)) {
        if (left == space::unknown) {
            log_warning("Could not get usage of partition for path '%s'.",
                        secondary_storage_path->c_str());
        }
        log_warning("Secondary storage is running out of free space. Deactivating monitoring "
                    "session.");
        ++occurrences.full_storages;
        if (deactivate_monitor_session(session) != 0) {
            (void)system_ret("/sbin/reboot");
        }
        return;
    }
    storage_look.usable = usable;
    storage_look.time = std::chrono::steady_clock::now();
    if (!usable) {
        note_storage_is_lost();
    } else if (external) {
        const process_list_memory once;
        run_due(external_storage_schedule(), tick, session);
        if (refusing_session == session) {
            note_storage_is_lost();
        }
    } else {
        run_due(internal_storage_schedule(), tick, session);
    }
    // On a lost storage there is no file to update; its absence has been said.
    if (is_directory(session.c_str()) && refusing_session != session) {
        update_session_duration(session);
    }
}

} // namespace

const session_storage &last_session_storage() {
    return storage_look;
}

std::span<const duty> external_storage_schedule() {
    return external_schedule;
}
std::span<const duty> collection_block() {
    return collection_duties;
}
std::span<const duty> internal_storage_schedule() {
    return internal_schedule;
}

gboolean timer_callback(gpointer) noexcept {
    const unsigned long tick = timer_count;
    errno = 0;
    loop_end_unless_it_turns(stillness_max);
    if (!serial_number) {
        read_serial_number();
        resume_waiting_session();
    }
    scheduled_tasks_tick(tick);
    syslog_triggers_keep_listening();
    mend_cut_off_traces();
    if (has_ntpd_service && tick % 60 == 0) {
        ntpd_log_drift();
    }
    const auto session = session_directory();
    if (monitory_active && session) {
        session_tick(tick, *session);
    }
    if (apache2_included) {
        koral_take_late_lines();
        vdrl_http_log_rotate(monitory_active);
    }
    if (++timer_count == timer_count_wrap) {
        timer_count = 0;
    }
    return G_SOURCE_CONTINUE;
}

gboolean nc_timer_callback(gpointer) noexcept {
    vdrl_dt_run(nc_rules.get(), serial_number.value_or(""));
    return G_SOURCE_CONTINUE;
}
