#include "session_finder.h"

#include "app_state.h"
#include "process_list.h"
#include "strutil.h"
#include "sysutil.h"

namespace {

constexpr const char *finder = "/usr/local/packages/Vandrel/collect_monitoring_sessions.sh";

} // namespace

void collect_action_rules() {
    (void)system_ret(format_bounded(200, "/usr/local/packages/Vandrel/collect_action_rules.sh %s",
                                    serial_number.value_or("").c_str())
                         .c_str());
}

void collect_monitoring_sessions(const std::optional<std::string> &serial) {
    (void)system_ret(serial ? format_bounded(100, "%s '%s'", finder, serial->c_str()).c_str()
                            : finder);
}

int wait_and_collect_monitoring_sessions() {
    if (ps_grep_and_check_if_included("Vandrel", "collect_m")) {
        return 0;
    }
    (void)system_ret(format_bounded(200, "%s %s&", finder,
                                    collect_only_from_this_camera
                                        ? (serial_number.value_or("") + " ").c_str()
                                        : "")
                         .c_str());
    return 0;
}
