#include "app_state.h"

#include "glib_ptr.h"
#include "log.h"
#include "session_globals.h"
#include "strutil.h"

#include <utility>

namespace {

// Paths and commands with bounds of 99 and 199 bytes hold it beside other texts.
constexpr std::size_t serial_number_max = 32;

} // namespace

std::unique_ptr<TVParameter, deleter<tv_parameter_free>> parameters;
std::optional<std::string> serial_number;
bool apache2_included = false;
bool collect_only_from_this_camera = true;
syslog_variant syslog_program_installed = syslog_variant_unknown;
bool has_libcapture = false;
const std::time_t start_time = std::time(nullptr);
unsigned long timer_count = 0;

std::optional<std::string> parameter_get(const char *name) {
    gchar *value = nullptr;
    if (!parameters || tv_parameter_get(parameters.get(), name, &value, nullptr) == FALSE) {
        return std::nullopt;
    }
    const gchar_ptr owner(value);
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

void read_serial_number() {
    std::optional<std::string> value = parameter_get("root.Properties.System.SerialNumber");
    if (!value) {
        return;
    }
    str_terminate_at(*value, '\n');
    if (!is_serial_number(value) || value->size() > serial_number_max) {
        // Asked for again at each tick.
        static std::string refused;
        if (std::exchange(refused, *value) != *value) {
            log_error("The serial number '%s' can not be used.", value->c_str());
        }
        return;
    }
    serial_number = std::move(value);
}
