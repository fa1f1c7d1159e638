#include "line_parser.h"

#include "fileutil.h"
#include "glib_ptr.h"
#include "log.h"
#include "popen2.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>

namespace {

constexpr std::size_t arguments_max = 100;

// Cuts a byte stream into lines. Holds at most process_line_max bytes; a line that does not fit
// with its newline is dropped whole.
class line_cutter {
  public:
    // Where the next bytes go and how many fit; never none.
    char *free_space() noexcept { return buffer_.data() + used_; }
    [[nodiscard]] std::size_t free_size() const noexcept { return process_line_max - used_; }

    // Takes `added` bytes that were put at free_space() and delivers the lines they complete.
    void take(std::size_t added, process_line_cb callback) {
        used_ += added;
        char *start = buffer_.data();
        char *const end = start + used_;
        while (auto *newline = static_cast<char *>(
                   std::memchr(start, '\n', static_cast<std::size_t>(end - start)))) {
            *newline = '\0';
            if (!dropping_) {
                callback(start);
            }
            dropping_ = false;
            start = newline + 1;
        }
        used_ = static_cast<std::size_t>(end - start);
        if (dropping_ || used_ == process_line_max) {
            dropping_ = true;
            used_ = 0;
        }
        std::memmove(buffer_.data(), start, used_);
    }

  private:
    std::array<char, process_line_max + 1> buffer_{};
    std::size_t used_ = 0;
    bool dropping_ = false;
};

// Lines that come one by one are gathered for a moment: a wake-up for each costs more than the
// line. A pipe holds 64 KiB meanwhile, and what fills it at once is read without such a pause.
constexpr int gather_ms = 100;
constexpr std::size_t few_bytes = 4096;
constexpr int last_reads_max = 64;

bool is_readable_now(int descriptor) {
    pollfd source{descriptor, POLLIN, 0};
    return ::poll(&source, 1, 0) > 0;
}

// What has come before the stop is still delivered, but of an endless output no more than this.
void read_last_lines(const thread_info &info, const popen2_file &child, line_cutter &lines) {
    for (int i = 0; i < last_reads_max && !info.at_end && is_readable_now(child.stdout.get());
         ++i) {
        const ssize_t size = ::read(child.stdout.get(), lines.free_space(), lines.free_size());
        if (size <= 0) {
            break;
        }
        lines.take(static_cast<std::size_t>(size), info.callback);
    }
    if (info.pause != nullptr) {
        info.pause();
    }
}

// Reads until told to stop. With the child's output at its end there is nothing left to wait for
// but the stop, so that a dead child costs nothing.
void read_lines(thread_info &info, const popen2_file &child) {
    line_cutter lines;
    std::size_t came_together = 0; // bytes
    pollfd sources[] = {{info.wake.get(), POLLIN, 0}, {child.stdout.get(), POLLIN, 0}};
    while (true) {
        if (::poll(sources, std::size(sources), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_error("select() failed");
            return;
        }
        if (!info.run) {
            read_last_lines(info, child, lines);
            return;
        }
        if (sources[1].revents == 0) {
            continue;
        }
        const std::size_t room = lines.free_size();
        const ssize_t size = ::read(child.stdout.get(), lines.free_space(), room);
        if (size < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_error("Read error");
            return;
        }
        if (size == 0) {
            info.at_end = true;
            sources[1].fd = -1;
            sources[1].revents = 0;
            continue;
        }
        const auto added = static_cast<std::size_t>(size);
        lines.take(added, info.callback);
        if (info.pause != nullptr) {
            info.pause();
        }
        came_together += added;
        if (added < room) { // all that there was
            if (came_together < few_bytes) {
                (void)::poll(sources, 1, gather_ms); // only for the stop
            }
            came_together = 0;
        }
    }
}

gpointer process_thread(gpointer data) noexcept {
    auto *info = static_cast<thread_info *>(data);
    if (info == nullptr) {
        log_error("A thread struct was expected.");
        return nullptr;
    }
    info->running = true;
    std::vector<const char *> argv;
    for (const std::string &argument : info->command) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    std::unique_ptr<popen2_file> child = popen2(argv.data());
    if (!child) {
        log_fatal("Could not popen2 '%s'", argv[0]);
    }
    read_lines(*info, *child);
    pclose2(std::move(child));
    info->running = false;
    return nullptr;
}

} // namespace

std::unique_ptr<thread_info> process_create(const char *const argv[], process_line_cb callback,
                                            process_pause_cb pause) {
    auto info = std::make_unique<thread_info>();
    for (std::size_t i = 0; argv[i] != nullptr; ++i) {
        if (i == arguments_max) {
            log_error("Either there are too many arguments for the given command, or the ending "
                      "NULL pointer is missing.");
            return nullptr;
        }
        info->command.emplace_back(argv[i]);
    }
    if (info->command.empty() || !is_executable(argv[0])) {
        errno = 0;
        log_info("Could not start process: Application not found.");
        return nullptr;
    }
    info->callback = callback;
    info->pause = pause;
    info->wake = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!info->wake) {
        log_error("Could not start process: %s", std::strerror(errno));
        return nullptr;
    }
    gerror_ptr error;
    info->thread = g_thread_try_new(nullptr, process_thread, info.get(), error_out(error));
    if (info->thread == nullptr) {
        log_error("Could not start process: %s", error ? error->message : "Unknown error.");
        return nullptr;
    }
    return info;
}

void process_stop(thread_info *info) {
    if (info != nullptr) {
        info->run = false;
        const std::uint64_t one = 1;
        // Can't fail: the counter is far from its limit, the descriptor lives as long as the
        // record.
        (void)TEMP_FAILURE_RETRY(::write(info->wake.get(), &one, sizeof one));
    }
}

void process_wait(thread_info *info) {
    if (info != nullptr && info->thread != nullptr) {
        g_thread_join(info->thread);
        info->thread = nullptr;
    }
}

void process_free(std::unique_ptr<thread_info> &info) {
    info.reset();
}
