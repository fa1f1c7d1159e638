#include "loop.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr std::int64_t longest_wait_ms = 3'600'000;

thread_local int turning_places = 0; // number of live loop_turns
thread_local bool in_callbacks = false;

// The source of the default context that dispatches our own context.
struct carrier {
    GSource source;
    GMainContext *carried;
    bool is_owned; // the loop's thread owns our context, so that other threads wake it
    gint priority;
    std::vector<GPollFD> *polled;
};

bool same(const std::vector<GPollFD> &one, const std::vector<GPollFD> &other) {
    if (one.size() != other.size()) {
        return false;
    }
    for (std::size_t i = 0; i < one.size(); ++i) {
        if (one[i].fd != other[i].fd || one[i].events != other[i].events) {
            return false;
        }
    }
    return true;
}

gboolean carrier_prepare(GSource *source, gint *timeout) noexcept {
    auto &c = *reinterpret_cast<carrier *>(source);
    if (!std::exchange(c.is_owned, true)) {
        g_main_context_acquire(c.carried);
    }
    (void)g_main_context_prepare(c.carried, &c.priority);
    std::vector<GPollFD> wanted(c.polled->size() + 1);
    for (;;) {
        const gint count = g_main_context_query(c.carried, c.priority, timeout, wanted.data(),
                                                static_cast<gint>(wanted.size()));
        const bool fits = static_cast<std::size_t>(count) <= wanted.size();
        wanted.resize(static_cast<std::size_t>(count));
        if (fits) {
            break;
        }
    }
    if (!same(wanted, *c.polled)) {
        for (GPollFD &entry : *c.polled) {
            g_source_remove_poll(source, &entry);
        }
        *c.polled = std::move(wanted);
        for (GPollFD &entry : *c.polled) {
            g_source_add_poll(source, &entry);
        }
    }
    return FALSE; // what is ready is found by the check, at once when the timeout is 0
}

gboolean carrier_check(GSource *source) noexcept {
    auto &c = *reinterpret_cast<carrier *>(source);
    return g_main_context_check(c.carried, c.priority, c.polled->data(),
                                static_cast<gint>(c.polled->size()));
}

gboolean carrier_dispatch(GSource *source, GSourceFunc, gpointer) noexcept {
    const bool was = std::exchange(in_callbacks, true);
    g_main_context_dispatch(reinterpret_cast<carrier *>(source)->carried);
    in_callbacks = was;
    return G_SOURCE_CONTINUE;
}

// --- How long the loop stands still: from the end of a poll to the next one. A source that is
// never ready sees both.

std::int64_t working_since_us = 0; // monotonic
std::int64_t longest_work_us = 0;

void note_work_until_now() {
    longest_work_us = std::max(longest_work_us, g_get_monotonic_time() - working_since_us);
}

gboolean before_wait(GSource *, gint *timeout) noexcept {
    note_work_until_now();
    *timeout = -1;
    return FALSE;
}

gboolean behind_wait(GSource *) noexcept {
    working_since_us = g_get_monotonic_time();
    return FALSE;
}

void attach_stillness_meter(GMainContext *context) {
    static GSourceFuncs functions{before_wait, behind_wait, nullptr, nullptr, nullptr, nullptr};
    working_since_us = g_get_monotonic_time();
    GSource *source = g_source_new(&functions, sizeof(GSource));
    g_source_set_priority(source, G_PRIORITY_HIGH); // others that are ready do not hide it
    g_source_attach(source, context);
    g_source_unref(source);
}

GMainContext *own_context() {
    static GMainContext *const context = [] {
        static GSourceFuncs functions{carrier_prepare, carrier_check, carrier_dispatch,
                                      nullptr,         nullptr,       nullptr};
        GSource *source = g_source_new(&functions, sizeof(carrier));
        auto &c = *reinterpret_cast<carrier *>(source);
        c.carried = g_main_context_new();
        attach_stillness_meter(c.carried);
        static std::vector<GPollFD> polled; // both live as long as the process
        c.polled = &polled;
        g_source_attach(source, nullptr);
        g_source_unref(source);
        return c.carried;
    }();
    return context;
}

// As g_timeout_add and the like, for our own context.
unsigned attach(GSource *source, GSourceFunc callback, gpointer data, gint priority) {
    g_source_set_callback(source, callback, data, nullptr);
    g_source_set_priority(source, priority);
    const unsigned id = g_source_attach(source, own_context());
    g_source_unref(source);
    return id;
}

template <typename Function> GSourceFunc as_source_func(Function *function) {
    return reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(function));
}

gboolean stop_waiting(gpointer) noexcept {
    return G_SOURCE_CONTINUE;
}
gboolean stop_waiting_for(gint, GIOCondition, gpointer) noexcept {
    return G_SOURCE_CONTINUE;
}

// --- SIGTERM

void (*clean_up)() = nullptr;
int termination = -1;                       // an eventfd; it lives as long as the process
std::atomic<std::int64_t> terminated_at{0}; // monotonic microseconds; 0: not yet
std::atomic<bool> is_cleaning_up{false};

// The service manager allows 90 seconds, not only for commands.
using namespace std::chrono_literals;
constexpr std::chrono::milliseconds time_to_notice = 10s;
constexpr std::chrono::milliseconds time_to_end = 60s;

// Async-signal-safe calls only.
void note_termination(int) {
    const int before = errno;
    std::int64_t none = 0;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    terminated_at.compare_exchange_strong(none, std::int64_t{now.tv_sec} * 1'000'000 +
                                                    now.tv_nsec / 1000);
    const std::uint64_t one = 1;
    (void)!::write(termination, &one, sizeof one);
    errno = before;
}

gboolean terminate(gint descriptor, GIOCondition, gpointer) noexcept {
    std::uint64_t count = 0;
    (void)!::read(descriptor, &count, sizeof count);
    if (!is_cleaning_up.exchange(true)) {
        clean_up();
    }
    return G_SOURCE_CONTINUE;
}

bool may_turn() {
    return turning_places > 0 && !in_callbacks;
}

void turn(bool may_block) {
    in_callbacks = true;
    while (g_main_context_iteration(own_context(), may_block ? TRUE : FALSE) != FALSE &&
           !may_block) {
    }
    in_callbacks = false;
}

} // namespace

unsigned loop_add_seconds(unsigned seconds, GSourceFunc callback, gpointer data) {
    return attach(g_timeout_source_new_seconds(seconds), callback, data, G_PRIORITY_DEFAULT);
}

unsigned loop_add_ms(unsigned milliseconds, GSourceFunc callback, gpointer data) {
    return attach(g_timeout_source_new(milliseconds), callback, data, G_PRIORITY_DEFAULT);
}

unsigned loop_add_idle(GSourceFunc callback, gpointer data) {
    return attach(g_idle_source_new(), callback, data, G_PRIORITY_DEFAULT);
}

unsigned loop_add_fd(int descriptor, GIOCondition condition, GUnixFDSourceFunc callback,
                     gpointer data) {
    return attach(g_unix_fd_source_new(descriptor, condition), as_source_func(callback), data,
                  G_PRIORITY_DEFAULT);
}

unsigned loop_add_channel(GIOChannel *channel, GIOCondition condition, GIOFunc callback,
                          gpointer data) {
    return attach(g_io_create_watch(channel, condition), as_source_func(callback), data,
                  G_PRIORITY_DEFAULT);
}

unsigned loop_add_child(GPid pid, GChildWatchFunc callback, gpointer data) {
    return attach(g_child_watch_source_new(pid), as_source_func(callback), data,
                  G_PRIORITY_DEFAULT);
}

void loop_on_termination(void (*callback)()) {
    clean_up = callback;
    termination = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct sigaction action {};
    action.sa_handler = note_termination;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    (void)loop_add_fd(termination, G_IO_IN, terminate, nullptr);
}

std::chrono::milliseconds loop_time_left() {
    const std::int64_t since = terminated_at;
    if (since == 0) {
        return std::chrono::hours(24 * 365);
    }
    const auto passed = std::chrono::milliseconds((g_get_monotonic_time() - since) / 1000);
    return (is_cleaning_up ? time_to_end : time_to_notice) - passed;
}

void loop_remove(unsigned source) {
    if (GSource *found = g_main_context_find_source_by_id(own_context(), source)) {
        g_source_destroy(found);
    }
}

loop_turns::loop_turns() {
    ++turning_places;
}
loop_turns::~loop_turns() {
    --turning_places;
}

void loop_wait(int descriptor, GIOCondition condition, std::chrono::milliseconds limit) {
    const auto milliseconds =
        static_cast<int>(std::clamp<std::int64_t>(limit.count(), 0, longest_wait_ms));
    if (!may_turn()) {
        pollfd awaited{descriptor, static_cast<short>(condition), 0};
        (void)::poll(&awaited, 1, milliseconds);
        return;
    }
    const unsigned time = loop_add_ms(static_cast<unsigned>(milliseconds), stop_waiting, nullptr);
    const unsigned ready =
        descriptor < 0 ? 0 : loop_add_fd(descriptor, condition, stop_waiting_for, nullptr);
    turn(true);
    loop_remove(time);
    if (ready != 0) {
        loop_remove(ready);
    }
}

void loop_run_due() {
    constexpr std::int64_t often_enough_us = 20'000;
    static std::int64_t last = 0; // on the main loop's thread, as all that may turn
    if (may_turn() && g_get_monotonic_time() - last > often_enough_us) {
        turn(false);
        last = g_get_monotonic_time();
    }
}

std::chrono::microseconds loop_take_longest_stillness() {
    note_work_until_now();
    return std::chrono::microseconds(std::exchange(longest_work_us, 0));
}

void loop_end_unless_it_turns(std::chrono::seconds limit) {
    itimerval once{};
    once.it_value.tv_sec = static_cast<time_t>(limit.count());
    (void)::setitimer(ITIMER_REAL, &once, nullptr);
}
