#include "scheduled_tasks.h"

#include "log.h"
#include "sysutil.h"

bool automatic_restart_interval = false;
unsigned long starting_tick = 0;
unsigned long nbr_of_ticks_until_activation = 0;
std::optional<std::string> automatic_restart_given_times;
bool ptz_test_interval = false;
unsigned long ptz_starting_tick = 0;
unsigned long ptz_nbr_of_ticks_until_activation = 0;
std::optional<std::string> ptz_test_given_times;

namespace {

constexpr const char *restart_command = "/sbin/reboot";
constexpr const char *ptz_test_command =
    "dbus-send --system --type=method_call --print-reply --reply-timeout=3000 "
    "--dest=com.tarvo.PTZ.Coordinator /com/tarvo/PTZ/Coordinator/1 "
    "com.tarvo.PTZ.Coordinator.Auxiliary string:\"Operator\" int32:0 string:\"reset\"";

// One countdown's part of a tick: announced one tick ahead, true when it is due. All in unsigned
// arithmetic; the tick count starts again at 0 and the countdown with it.
bool is_due(const char *name, unsigned long tick, unsigned long &start, unsigned long length) {
    if (tick == 0) {
        start = 0;
    }
    if (start + length - tick == 1) {
        log_warning("%s", name);
    }
    return tick - start >= length;
}

} // namespace

void scheduled_tasks_tick(unsigned long tick) {
    if (automatic_restart_interval &&
        is_due("Automatic Restart", tick, starting_tick, nbr_of_ticks_until_activation)) {
        (void)system_ret(restart_command);
    }
    if (ptz_test_interval &&
        is_due("Automatic PTZ Test", tick, ptz_starting_tick, ptz_nbr_of_ticks_until_activation)) {
        (void)system_ret(ptz_test_command);
        ptz_starting_tick = tick;
    }
}

gboolean scheduled_tasks_timer_callback(gpointer) noexcept {
    return G_SOURCE_CONTINUE;
}

gboolean reload_httpd_now(gpointer) noexcept {
    (void)system_ret("systemctl reload httpd");
    return G_SOURCE_REMOVE;
}
