#include "vdrl_http_log.h"

#include "fileutil.h"
#include "log.h"
#include "sysutil.h"

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
    if (is_file(http_log_path) && filesize(http_log_path) > rotation_size) {
        file_remove(http_log_path);
        (void)system_ret("/bin/systemctl kill --signal HUP httpd.service");
    }
}
