#include "vdrl_http_log.h"

#include "fileutil.h"
#include "handle.h"
#include "log.h"
#include "sysutil.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace {

constexpr const char *configuration_folder = "/etc/apache2/conf.d";
constexpr const char *configuration_path = "/etc/apache2/conf.d/log.conf";

// [21/Nov/2026:07:42:00 +0000] IPAddress:192.168.0.1 User:root  "GET /tarvo-cgi/param.cgi HTTP/1.1"
// Process Time:5ms HTTP Status:200
constexpr const char *configuration =
    "<IfModule mod_log_config.c>\n"
    "    LogFormat \"%t IPAddress:%h User:%u  \\\"%r\\\" Process Time:%{ms}Tms HTTP Status:%>s\" "
    "common\n"
    "\n"
    "    CustomLog \"/var/log/HTTP_log.txt\" common\n"
    "</IfModule>\n";

constexpr long long rotation_size = 100'000; // bytes
constexpr int follower_wait_ms = 200;

unique_fd deleted_log;      // of the latest rotation, if its follower does not read on
off_t deleted_log_read = 0; // the offset up to which it was read

} // namespace

bool vdrl_http_log_setup() {
    if (!is_directory(configuration_folder)) {
        log_info("HTTP logging: Extended Logging Failed (apache2 not found).");
        return false;
    }
    if (!file_put_string(configuration_path, configuration)) {
        log_error("HTTP logging: Extended Logging Failed (could not create config file).");
        return false;
    }
    log_info("Apache Webserver: Extended Logging configured.");
    return true;
}

bool vdrl_http_log_is_enabled() {
    return is_file(configuration_path);
}

void vdrl_http_log_disable() {
    file_remove(configuration_path);
}

void vdrl_http_log_rotate(bool followed) {
    if (!is_file(http_log_path) || filesize(http_log_path) <= rotation_size) {
        return;
    }
    const unique_fd closings(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    (void)::inotify_add_watch(closings.get(), http_log_path, IN_CLOSE_NOWRITE);
    deleted_log = unique_fd(::open(http_log_path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    file_remove(http_log_path);
    // A follower by inotify closes the file now, right after its last read. One that polls once a
    // second reads on to the end and misses nothing.
    pollfd closing = {closings.get(), POLLIN, 0};
    struct stat status {};
    if (followed && ::poll(&closing, 1, follower_wait_ms) == 1 &&
        ::fstat(deleted_log.get(), &status) == 0) {
        deleted_log_read = status.st_size;
    } else {
        (void)deleted_log.close();
    }
    (void)system_ret("/bin/systemctl kill --signal HUP httpd.service");
}

std::string vdrl_http_log_late_lines() {
    std::string text;
    char piece[4096];
    ssize_t size = 0;
    while (deleted_log &&
           (size = ::pread(deleted_log.get(), piece, sizeof piece, deleted_log_read)) > 0) {
        text.append(piece, static_cast<std::size_t>(size));
        deleted_log_read += size;
    }
    (void)deleted_log.close();
    return text;
}
