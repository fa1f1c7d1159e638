#include "dateutil.h"

#include "log.h"

#include <cerrno>
#include <ctime>

namespace {

bool format_now(char *buffer, std::size_t size, const char *format) {
    std::time_t now = 0;
    std::tm local{};
    // localtime_r alone would keep the time zone of the start when the camera's is changed.
    ::tzset();
    if (std::time(&now) == -1 || ::localtime_r(&now, &local) == nullptr) {
        log_error("Could not get current time.");
        return false;
    }
    errno = 0; // reading the time zone leaves its own behind
    if (std::strftime(buffer, size, format, &local) == 0) {
        log_error("The time string exceeds the given buffer, or is empty.");
        return false;
    }
    return true;
}

} // namespace

void date_format_now(char *buffer, std::size_t size, const char *format) {
    (void)format_now(buffer, size, format);
}

std::string date_format_now(const char *format) {
    char buffer[256];
    return format_now(buffer, sizeof buffer, format) ? buffer : "";
}
