#include "report_queue.h"

#include "fileutil.h"
#include "log.h"
#include "loop.h"
#include "sysutil.h"

#include <cerrno>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <optional>
#include <utility>

namespace {

constexpr std::size_t waiting_max = 100;
constexpr unsigned look_again_ms = 250; // polling period while a command runs

std::deque<report_job> waiting;
std::optional<command_beside> running;
std::function<void(int)> running_done;
bool is_watched = false; // by the timer

gboolean look_at_running(gpointer) noexcept;

void begin(report_job job) {
    unique_fd output;
    if (!job.path.empty()) {
        output = file_descriptor(job.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (!output) {
            log_cannot_open(job.path.c_str());
            job.done(-1);
            return;
        }
    }
    running_done = std::move(job.done);
    running.emplace(job.command.c_str(), output.get());
}

void begin_next() {
    while (!running && !waiting.empty()) {
        report_job job = std::move(waiting.front());
        waiting.pop_front();
        begin(std::move(job));
    }
    if (running && !std::exchange(is_watched, true)) {
        loop_add_ms(look_again_ms, look_at_running, nullptr);
    }
}

void end_running(int wait_status) {
    running.reset();
    std::exchange(running_done, nullptr)(wait_status);
}

gboolean look_at_running(gpointer) noexcept {
    const auto status = running ? running->wait(std::chrono::milliseconds::zero()) : std::nullopt;
    if (status) {
        end_running(*status);
        begin_next();
    }
    is_watched = running.has_value();
    return is_watched ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

} // namespace

void report_queue_add(report_job job) {
    if (waiting.size() >= waiting_max) {
        errno = EBUSY;
        job.done(-1);
        return;
    }
    waiting.push_back(std::move(job));
    begin_next();
}

void report_queue_finish(std::chrono::milliseconds patience) {
    while (running) {
        const auto begin = std::chrono::steady_clock::now();
        const auto status = running->wait(patience);
        patience -= std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - begin);
        if (!status) {
            errno = 0;
            log_warning("A report that is being made of the device is cut short; %zu more are left "
                        "out.",
                        waiting.size());
        }
        end_running(status ? *status : running->end());
        if (patience.count() <= 0) {
            for (report_job &job : std::exchange(waiting, {})) {
                job.done(SIGKILL);
            }
        }
        begin_next();
    }
}
