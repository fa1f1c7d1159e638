// The daemon's own timers, file watches and child watches. They live in a context of their own,
// which the main loop carries beside what the platform's libraries have in it: so they can also run
// while the handler of a request waits, and no other request is served meanwhile.
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
// What the service manager's patience leaves for all that is still to be waited for, before the
// clean-up and in it; below zero when it is over, a year as long as no SIGTERM has come. Any
// thread.
std::chrono::milliseconds loop_time_left();
void loop_remove(unsigned source);

// As long as one of these lives, the thread's waits below let the daemon's own callbacks run. Only
// for the handlers that http.h lists: nothing may be half changed then.
class loop_turns {
  public:
    loop_turns();
    ~loop_turns();
    loop_turns(const loop_turns &) = delete;
    loop_turns &operator=(const loop_turns &) = delete;
};

// Waits until the descriptor (-1: none) is ready or the time is over, or earlier: who waits looks
// and waits again. Where a loop_turns lives, callbacks run meanwhile; not from within a callback,
// so that no tick runs in a tick. Any thread.
void loop_wait(int descriptor, GIOCondition condition, std::chrono::milliseconds limit);

// Where a loop_turns lives: runs what is due, without waiting. Cheap enough for every piece of a
// reply.
void loop_run_due();

// The longest time since the last call of this in which no source of the loop could run, the time
// since the loop went on included.
std::chrono::microseconds loop_take_longest_stillness();

// Ends the process by SIGALRM unless it is called again within that time.
void loop_end_unless_it_turns(std::chrono::seconds limit);
