#include "scheduled_tasks.h"

gboolean scheduled_tasks_timer_callback(gpointer) noexcept {
    return G_SOURCE_CONTINUE;
}
