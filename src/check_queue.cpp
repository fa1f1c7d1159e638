#include "check_queue.h"

#include "loop.h"
#include "sysutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <deque>
#include <unistd.h>
#include <utility>

namespace {

enum class check_state { waiting, running, ended };

// From check_queue_add until it has been counted.
struct check {
    const void *owner; // null once forgotten
    std::function<check_command()> begin;
    check_command command{};
    check_state state = check_state::waiting;
    running_command child{};
    check_result result{};
    int runs = 0; // of the queue that have found the command running
};

// Commands at a time: a small device carries so many processes.
constexpr int running_max = 32;
// Most commands have a limit of seconds themselves.
constexpr int runs_max = 12;

std::deque<check> checks;
bool is_counting = false; // an idle source counts results
bool is_first = false;    // the next result is the first of them
int running = 0;

bool may_be_counted(const check &c) {
    return c.state == check_state::ended || (c.state == check_state::waiting && c.owner == nullptr);
}

// One result per idle call, as it may write to a slow storage: the loop serves others in between.
gboolean count_next(gpointer) noexcept {
    if (!checks.empty() && may_be_counted(checks.front())) {
        check &c = checks.front();
        if (c.owner != nullptr) {
            errno = 0;
            c.result.is_first = std::exchange(is_first, false);
            c.command.count(c.result);
        }
        checks.pop_front();
    }
    is_counting = !checks.empty() && may_be_counted(checks.front());
    return is_counting ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

void start_waiting();

void note_end(GPid, gint wait_status, gpointer data) noexcept {
    auto &c = *static_cast<check *>(data);
    c.state = check_state::ended;
    c.result.wait_status = wait_status;
    --running;
    start_waiting();
    if (!std::exchange(is_counting, true)) {
        is_first = true;
        loop_add_idle(count_next, nullptr);
    }
}

gboolean take_output(gint descriptor, GIOCondition, gpointer data) noexcept {
    auto &c = *static_cast<check *>(data);
    std::string &output = c.result.output;
    std::array<char, check_output_max> piece;
    const ssize_t size = TEMP_FAILURE_RETRY(::read(descriptor, piece.data(), piece.size()));
    if (size > 0) {
        output.append(piece.data(),
                      std::min(static_cast<std::size_t>(size), check_output_max - output.size()));
        if (c.command.is_enough == nullptr ||
            (output.size() < check_output_max && !c.command.is_enough(output))) {
            return G_SOURCE_CONTINUE;
        }
    }
    (void)c.child.output.close();
    loop_add_child(c.child.pid, note_end, &c);
    return G_SOURCE_REMOVE;
}

void start(check &c) {
    c.command = c.begin();
    c.result.command = c.command.text;
    c.child = start_command(c.command.text.c_str());
    c.state = check_state::running;
    ++running;
    loop_add_fd(c.child.output.get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR),
                take_output, &c);
}

void start_waiting() {
    for (check &c : checks) {
        if (running == running_max) {
            break;
        }
        if (c.state == check_state::waiting && c.owner != nullptr) {
            start(c);
        }
    }
    errno = 0;
}

} // namespace

void check_queue_add(const void *owner, std::function<check_command()> begin) {
    checks.push_back({owner, std::move(begin)});
}

void check_queue_run() {
    for (check &c : checks) {
        if (c.state == check_state::running && ++c.runs == runs_max) {
            ::kill(-c.child.pid, SIGKILL);
        }
    }
    start_waiting();
}

void check_queue_forget(const void *owner) {
    for (check &c : checks) {
        if (c.owner == owner) {
            c.owner = nullptr;
        }
    }
}
