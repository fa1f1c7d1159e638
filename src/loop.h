// The daemon's own timers, file watches and child watches. They live in a GLib context of their
// own, which the default context dispatches: a waiting request handler can run them alone, without
// serving another request.
#pragma once

#include <chrono>
#include <glib-unix.h>

// As g_timeout_add_seconds, g_timeout_add, g_idle_add (any thread), g_unix_fd_add,
// g_child_watch_add and g_io_add_watch; the numbers are for loop_remove alone.
unsigned loop_add_seconds(unsigned seconds, GSourceFunc callback, gpointer data);
unsigned loop_add_ms(unsigned milliseconds, GSourceFunc callback, gpointer data);
unsigned loop_add_idle(GSourceFunc callback, gpointer data);
unsigned loop_add_fd(int descriptor, GIOCondition condition, GUnixFDSourceFunc callback,
                     gpointer data);
unsigned loop_add_channel(GIOChannel *channel, GIOCondition condition, GIOFunc callback,
                          gpointer data);
unsigned loop_add_child(GPid pid, GChildWatchFunc callback, gpointer data);
// Runs the callback on the first SIGTERM; later ones do nothing. Once.
void loop_on_termination(void (*callback)());
// The time left for waits after a SIGTERM, before the service manager kills the daemon: for those
// before the clean-up, then for those in it. Negative when it is used up, a year before any
// SIGTERM. Any thread.
std::chrono::milliseconds loop_time_left();
void loop_remove(unsigned source);

// During its lifetime the thread's waits below run the daemon's own callbacks. Only for the
// handlers that http.h lists.
class loop_turns {
  public:
    loop_turns();
    ~loop_turns();
    loop_turns(const loop_turns &) = delete;
    loop_turns &operator=(const loop_turns &) = delete;
};

// Waits until the descriptor (-1: none) is ready or the time is over; may return early, so callers
// loop. Under a loop_turns callbacks run meanwhile, except from within a callback: ticks don't
// nest. Any thread.
void loop_wait(int descriptor, GIOCondition condition, std::chrono::milliseconds limit);

// Under a loop_turns: runs what is due, without waiting. Cheap enough for every piece of a reply.
void loop_run_due();

// The longest stretch since the last call in which no source of the loop could run, the current one
// included.
std::chrono::microseconds loop_take_longest_stillness();

// Ends the process by SIGALRM unless it is called again within that time.
void loop_end_unless_it_turns(std::chrono::seconds limit);
