#include "vdrl_http_log.h"

#include "fileutil.h"
#include "handle.h"
#include "log.h"
#include "sysutil.h"

#include <fcntl.h>
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

unique_fd deleted_log;      // of the latest rotation
off_t deleted_log_read = 0; // so far somebody has read it

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

void vdrl_http_log_rotate() {
    if (!is_file(http_log_path) || filesize(http_log_path) <= rotation_size) {
        return;
    }
    deleted_log = unique_fd(::open(http_log_path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    file_remove(http_log_path);
    struct stat status {};
    deleted_log_read = ::fstat(deleted_log.get(), &status) == 0 ? status.st_size : 0;
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
