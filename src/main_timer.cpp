#include "main_timer.h"

#include "app_state.h"

namespace {

constexpr unsigned long timer_count_wrap = 60'000'000;

} // namespace

gboolean timer_callback(gpointer) noexcept {
    if (!serial_number) {
        read_serial_number();
    }
    if (++timer_count == timer_count_wrap) {
        timer_count = 0;
    }
    return G_SOURCE_CONTINUE;
}

gboolean nc_timer_callback(gpointer) noexcept {
    return G_SOURCE_CONTINUE;
}
