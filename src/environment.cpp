#include "environment.h"

#include "filehandler.h"
#include "strutil.h"
#include "sysutil.h"

namespace {

constexpr std::size_t invoker_command_size = 250;
constexpr std::size_t vela_command_size = 256;

} // namespace

void shellscript_invoker(const std::string &directory, const std::string &script_name) {
    if (ps_grep_and_check_if_included("Vandrel", script_name)) {
        return;
    }
    (void)system_ret(format_bounded(invoker_command_size, "/usr/local/packages/Vandrel/%s.sh %s &",
                                    script_name.c_str(), directory.c_str())
                         .c_str());
}

void vela_monitor_status_snapshot(const std::string &session_directory) {
    (void)system_ret(
        format_bounded(vela_command_size,
                       "/usr/local/packages/Vandrel/vela_status_monitor.sh \"%s/%s/%s\" &",
                       session_directory.c_str(), "system_monitoring", "monitoring_vela")
            .c_str());
}
