// Feeds what comes from outside to the daemon's own code: the first byte of an input chooses a
// request ("action=ping&address=..."), a file that is read back, or lines of the HTTP log. Fails
// when memory or arithmetic goes wrong, when the process ends, and when a command is run that a
// shell would take apart. Commands are not run (no_commands.cpp). To be run in simulator/sandbox:
// it writes where the daemon does.
#define main vandrel_main
#include "../src/main.cpp" // NOLINT(bugprone-suspicious-include)
#undef main

#include "debug_mode.h"
#include "koral_cgi_monitoring.h"
#include "session_info.h"

#include <filesystem>
#include <fstream>

namespace {

const std::string localdata = "/usr/local/packages/Vandrel/localdata/";
const std::string session = localdata + "20260101_00_00_00";

void request(const std::string &query) {
    const ghashtable_ptr table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
    std::string_view rest = query;
    while (!rest.empty()) {
        const std::string one(rest.substr(0, rest.find('&')));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        const auto equals = std::min(one.find('='), one.size());
        g_hash_table_insert(table.get(), g_strdup(one.substr(0, equals).c_str()),
                            g_strdup(one.substr(std::min(equals + 1, one.size())).c_str()));
    }
    const gobject_ptr<GOutputStream> memory(g_memory_output_stream_new_resizable());
    const gobject_ptr<GDataOutputStream> stream(g_data_output_stream_new(memory.get()));
    http_access_callback(stream.get(), table.get());
}

void http_log(const std::string &text) {
    monitory_active = true;
    set_http_edge_storage(session);
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        parse_koral_line(text.substr(start, end - start).c_str());
        start = end + 1;
    }
    koral_write_lines();
    koral_cgi_store();
    (void)koral_output_state_of_the_table();
    koral_cgi_monitor_release();
    monitory_active = false;
}

void triggers() {
    read_old_systemlog_analyser_rules(crash_report_log_message_callback);
}
void traces() {
    request("action=view_wireshark_sessions");
}
void listing() {
    request("action=list_data");
}
void session_file() {
    (void)resume_monitoring_session();
    _set_current_activity_folder(std::nullopt);
    _set_secondary_storage_path(std::nullopt);
    _set_storage_id(std::nullopt);
    monitory_active = false;
}
void information() {
    update_session_duration(session);
    update_number_of_collected_data_points(session);
    listing();
}
void hosts() {
    vdrl_dt_rules_free(nc_rules);
    nc_rules = vdrl_dt_rules_read_from_file();
    request("action=list_nc_rules");
}
void filters() {
    monitory_active = true;
    set_http_edge_storage(session);
    (void)koral_read_user_defined_filters();
    koral_cgi_monitor_release();
    monitory_active = false;
}
void rows() {
    request("action=view_monitor_data&type=load&storage=" + session);
}

const struct {
    std::string path;
    void (*read)();
} files[] = {
    {localdata + "systemlog_analyzer.txt", triggers},
    {localdata + "systemlog_analyzer_logmsg.txt", triggers},
    {localdata + "nc_rules.txt", hosts},
    {localdata + "automatic_restart_interval.info", read_scheduled_tasks},
    {localdata + "automatic_restart_times.info", read_scheduled_tasks},
    {localdata + "automatic_PTZ_test_times.info", read_scheduled_tasks},
    {localdata + "found_wireshark_sessions.txt", traces},
    {localdata + "found_monitoring_sessions.txt", listing},
    {localdata + "lost_monitoring_sessions.txt", listing},
    {localdata + "current_monitoring_session.txt", session_file},
    {session + "/Session_Information.txt", information},
    {session + "/system_monitoring/monitoring_koral/filters.txt", filters},
    {session + "/system_monitoring/monitoring_load/load.csv", rows},
    {localdata + "automatic_PTZ_test_interval.info", read_scheduled_tasks},
    {localdata + "automatic_restart_fired.info", read_scheduled_tasks},
    {localdata + "syslog_server.info", listing},
    {localdata + "parameters.txt", remember_and_activate_services},
};

// What requests have left, so that the thousandth input is read as the first.
void forget() {
    while (get_systemlog_list() != nullptr) {
        (void)remove_a_systemlog_trigger_rule(std::string(get_systemlog_list()->name));
    }
    vdrl_dt_rules_free(nc_rules);
    for (const auto &file : files) {
        file_remove(file.path.c_str());
    }
    advanced_debug_mode_crash_log_message_activated = false;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    log_set_sink([](int level, const std::string &message) {
        if (level == LOG_EMERG && message.find("test emergency") == std::string::npos) {
            std::fprintf(stderr, "%s\n", message.c_str());
        }
    });
    for (const auto &file : files) {
        std::filesystem::create_directories(std::filesystem::path(file.path).parent_path());
    }
    for (const char *folder : {"logfiles", "others"}) {
        std::filesystem::create_directories(session + "/system_monitoring/monitoring_koral/" +
                                            folder);
    }
    open_parameters();
    serial_number = "02A5C41E90B7";
    register_actions();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static unsigned inputs = 0;
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::size_t choice = *data;
    if (choice < std::size(files)) {
        std::ofstream(files[choice].path, std::ios::binary) << text;
        files[choice].read();
    } else if (choice == std::size(files)) {
        http_log(text);
    } else {
        request(text);
    }
    if (++inputs % 100 == 0) {
        forget();
    }
    return 0;
}
