#include "vdrl_capture.h"

#include "dateutil.h"
#include "fileutil.h"
#include "glib_ptr.h"
#include "log.h"
#include "strutil.h"

#include <algorithm>
#include <atomic>
#include <capture.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto join_limit = 3000ms;
constexpr long long side_max = 100'000; // pixels

// --- The library. Changed only while no thread runs.

void *vdrl_capture_libhandle = nullptr;
decltype(&capture_open_stream) ptr_capture_open_stream = nullptr;
decltype(&capture_get_frame) ptr_capture_get_frame = nullptr;
decltype(&capture_frame_data) ptr_capture_frame_data = nullptr;
decltype(&capture_frame_size) ptr_capture_frame_size = nullptr;
decltype(&capture_frame_free) ptr_capture_frame_free = nullptr;
decltype(&capture_close_stream) ptr_capture_close_stream = nullptr;

void *vdrl_capture_dlsym(const char *name) {
    ::dlerror();
    void *symbol = ::dlsym(vdrl_capture_libhandle, name);
    if (symbol == nullptr) {
        const char *reason = ::dlerror();
        log_warning("Could not load function '%s' from libcapture: %s", name,
                    reason == nullptr ? "Unknown error." : reason);
    }
    return symbol;
}

template <typename Function> bool look_up(Function &function, const char *name) {
    function = reinterpret_cast<Function>(vdrl_capture_dlsym(name));
    return function != nullptr;
}

bool look_up_all() {
    bool found = look_up(ptr_capture_open_stream, "capture_open_stream");
    found = look_up(ptr_capture_get_frame, "capture_get_frame") && found;
    found = look_up(ptr_capture_frame_data, "capture_frame_data") && found;
    found = look_up(ptr_capture_frame_size, "capture_frame_size") && found;
    found = look_up(ptr_capture_frame_free, "capture_frame_free") && found;
    return look_up(ptr_capture_close_stream, "capture_close_stream") && found;
}

void unload() {
    if (vdrl_capture_libhandle != nullptr) {
        ::dlclose(vdrl_capture_libhandle);
        vdrl_capture_libhandle = nullptr;
    }
}

void free_frame(CaptureFrame *frame) noexcept {
    ptr_capture_frame_free(frame);
}
void close_stream(CaptureStream *stream) noexcept {
    ptr_capture_close_stream(stream);
}
using frame_ptr = std::unique_ptr<CaptureFrame, deleter<free_frame>>;
using stream_ptr = std::unique_ptr<CaptureStream, deleter<close_stream>>;

// --- The thread

// One run of capturing: made by vdrl_capture_start, shared with its thread, released after the
// join.
struct capture_job {
    std::chrono::seconds interval{0};
    std::string folder;
    std::optional<std::string> resolution; // the parameter
    std::mutex publishing;                 // held to make an image visible, and to clear `run`
    std::atomic<bool> run{true};
    unique_fd wake;  // eventfd; readable once `run` is cleared
    unique_fd ended; // eventfd; readable once the thread is done with the library
    GThread *thread = nullptr;
    bool given_up = false; // it did not end in time
    bool is_retry = false; // its failure was logged before
};

// The last run that was started and not joined yet. Main loop only, as what follows.
std::shared_ptr<capture_job> current_job;
bool vdrl_capture_running = false;
std::atomic<std::time_t> last_image = 0;

// The settings of the last start, until the stop.
struct wanted_images {
    int interval_s;
    std::string folder;
};
std::optional<wanted_images> wanted;
bool was_tried = false; // to start, since the last stop

void raise(const unique_fd &event) {
    const std::uint64_t one = 1;
    (void)TEMP_FAILURE_RETRY(::write(event.get(), &one, sizeof one)); // far from its limit
}

// Whether the eventfd was raised within the time.
bool wait_for(const unique_fd &event, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    pollfd source{event.get(), POLLIN, 0};
    while (true) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        const auto piece = std::clamp<std::chrono::milliseconds>(left, 0ms, 1h);
        if (::poll(&source, 1, static_cast<int>(piece.count())) > 0) {
            return true;
        }
        if (left <= 0ms) {
            return false;
        }
    }
}

// Makes the image visible, unless capturing was stopped; false, with errno, when it could not be
// written. Whoever stopped it may have removed the folder already: that is no failure.
bool save_image(capture_job &job, CaptureFrame *frame, const std::string &path) {
    const std::string temporary = job.folder + "/.tmp_image.jpg";
    if (!job.run) {
        return true;
    }
    if (!file_write_new(temporary.c_str(),
                        {static_cast<const char *>(ptr_capture_frame_data(frame)),
                         ptr_capture_frame_size(frame)})) {
        const int reason = errno;
        file_remove(temporary.c_str());
        errno = reason;
        return !job.run;
    }
    const std::lock_guard lock(job.publishing);
    if (!job.run) {
        file_remove(temporary.c_str());
        return true;
    }
    if (!file_rename(temporary.c_str(), path.c_str())) {
        return false;
    }
    last_image = std::time(nullptr);
    return true;
}

// Takes one image; false when there is none, logged unless `failed_before`.
bool take_image(capture_job &job, CaptureStream *stream, bool failed_before) {
    const std::string path = format_bounded(4096, "%s/%s.jpg", job.folder.c_str(),
                                            date_format_now("%Y%m%dT%H%M%S").c_str());
    const frame_ptr frame(ptr_capture_get_frame(stream));
    const bool has_picture = frame && ptr_capture_frame_size(frame.get()) > 0;
    const bool saved = has_picture && save_image(job, frame.get(), path);
    if (!saved && !failed_before) {
        if (has_picture) {
            log_cannot_open(path.c_str());
        } else {
            log_warning("No image came from libcapture.");
        }
    }
    return saved;
}

// Makes the folder and opens the stream. Null, logged, on failure.
stream_ptr prepare(const capture_job &job) {
    if (!make_folder(job.folder.c_str(), 0777)) {
        if (!job.is_retry) {
            log_error("Failed to mkdir %s", job.folder.c_str());
        }
        return nullptr;
    }
    const auto resolution =
        job.resolution ? parse_largest_resolution(*job.resolution) : std::nullopt;
    stream_ptr stream(resolution
                          ? ptr_capture_open_stream(
                                "image/jpeg", format_bounded(100, "resolution=%dx%d",
                                                             resolution->first, resolution->second)
                                                  .c_str())
                          : nullptr);
    if (!stream && !job.is_retry) {
        if (!job.resolution) {
            log_error("Failed to retrieve resolution parameter, stopping image thread.");
        } else if (!resolution) {
            log_error("Failed to parse resolution parameter, stopping image thread.\n%s",
                      job.resolution->c_str());
        } else {
            log_error("Failed to open stream");
        }
    }
    return stream;
}

void capture_images(capture_job &job) {
    const stream_ptr stream = prepare(job);
    if (!stream) {
        return;
    }
    if (job.is_retry) {
        log_info("Image capturing goes on.");
    }
    // A lost storage costs its images and one line of the log.
    bool failing = false;
    while (job.run) {
        failing = !take_image(job, stream.get(), failing);
        errno = 0;
        (void)wait_for(job.wake, job.interval);
    }
}

gpointer capture_thread(gpointer data) noexcept {
    const std::unique_ptr<std::shared_ptr<capture_job>> owner(
        static_cast<std::shared_ptr<capture_job> *>(data));
    capture_images(**owner);
    raise((*owner)->ended);
    return nullptr;
}

// Joins the last thread; false, and logged once, when it does not end.
bool join_last() {
    if (!current_job) {
        return true;
    }
    if (!wait_for(current_job->ended, current_job->given_up ? 0ms : join_limit)) {
        if (!current_job->given_up) {
            current_job->given_up = true;
            log_error("The image thread does not end, libcapture stays loaded.");
        }
        return false;
    }
    g_thread_join(current_job->thread);
    current_job.reset();
    return true;
}

std::shared_ptr<capture_job> make_job(TVParameter *parameters, int interval_s,
                                      const std::string &folder) {
    auto job = std::make_shared<capture_job>();
    job->interval = std::chrono::seconds(interval_s);
    job->folder = folder;
    gchar *value = nullptr;
    if (parameters != nullptr && tv_parameter_get(parameters, "root.Properties.Image.Resolution",
                                                  &value, nullptr) != FALSE) {
        job->resolution = value;
    }
    const gchar_ptr owner(value);
    job->wake = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    job->ended = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return job->wake && job->ended ? job : nullptr;
}

bool start_thread(TVParameter *parameters, bool is_retry) {
    vdrl_capture_running = false;
    auto job = join_last() ? make_job(parameters, wanted->interval_s, wanted->folder) : nullptr;
    if (!job) {
        return false;
    }
    job->is_retry = is_retry;
    auto shared = std::make_unique<std::shared_ptr<capture_job>>(job);
    gerror_ptr error;
    job->thread = g_thread_try_new(nullptr, capture_thread, shared.get(), error_out(error));
    if (job->thread == nullptr) {
        return false;
    }
    (void)shared.release(); // the thread's
    current_job = std::move(job);
    vdrl_capture_running = true;
    return true;
}

} // namespace

bool vdrl_capture_load() {
    if (vdrl_capture_libhandle != nullptr) {
        return true;
    }
    vdrl_capture_libhandle = ::dlopen("libcapture.so", RTLD_LAZY);
    const bool complete = vdrl_capture_libhandle != nullptr && look_up_all();
    errno = 0;
    if (!complete) {
        log_notice("Some or all necessary functions could not be loaded from libcapture.");
        unload();
    }
    return complete;
}

bool vdrl_capture_start(TVParameter *parameters, int interval_s, const std::string &folder) {
    errno = 0;
    was_tried = true;
    if (vdrl_capture_running) {
        log_error("Could not start capturing: Image capturing is already running.");
        return false;
    }
    if (interval_s <= 1) {
        log_error("Could not start capturing: Image capture interval must be at least 1 second.");
        return false;
    }
    if (!vdrl_capture_load()) {
        log_error("Could not start capturing: Could not load libcapture.");
        return false;
    }
    wanted = {interval_s, folder};
    if (!start_thread(parameters, false)) {
        log_error("Could not start capturing: Couldn't start thread.");
        return false;
    }
    log_info("Started image capturing.");
    return true;
}

void vdrl_capture_keep_going(TVParameter *parameters, int interval_s, const std::string &folder) {
    errno = 0;
    if (!was_tried) {
        (void)vdrl_capture_start(parameters, interval_s, folder);
    } else if (wanted && (!vdrl_capture_running || wait_for(current_job->ended, 0ms))) {
        (void)start_thread(parameters, true);
        errno = 0;
    }
}

void vdrl_capture_stop() {
    was_tried = false;
    wanted.reset();
    if (!vdrl_capture_running) {
        return;
    }
    vdrl_capture_running = false;
    {
        const std::lock_guard lock(current_job->publishing);
        current_job->run = false;
    }
    raise(current_job->wake);
}

std::time_t vdrl_capture_last_image() {
    return last_image;
}

void vdrl_capture_close() {
    errno = 0;
    if (vdrl_capture_running) {
        log_error("Could not unload libcapture: Image capturing is running.");
    } else if (join_last()) {
        unload();
    }
}

std::optional<std::pair<int, int>> parse_largest_resolution(std::string_view list) {
    std::pair<long long, long long> largest{0, 0};
    for (auto comma = list.find(','); comma != std::string_view::npos; comma = list.find(',')) {
        const std::string_view entry = list.substr(0, comma);
        const auto by = entry.find('x');
        if (by != std::string_view::npos) {
            largest = std::max(largest, {decimal_prefix(entry.substr(0, by)),
                                         decimal_prefix(entry.substr(by + 1))});
        }
        list.remove_prefix(comma + 1);
    }
    if (largest.first <= 0 || largest.second <= 0 ||
        std::max(largest.first, largest.second) > side_max) {
        return std::nullopt;
    }
    return std::pair(static_cast<int>(largest.first), static_cast<int>(largest.second));
}
