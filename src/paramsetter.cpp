#include "paramsetter.h"

#include "fileutil.h"
#include "glib_ptr.h"
#include "log.h"
#include "strutil.h"

#include <cerrno>
#include <string_view>

std::optional<std::string> ssh_setting_before;
std::optional<std::string> ftp_setting_before;

namespace {

constexpr const char *settings_path = "/usr/local/packages/Vandrel/localdata/parameters.txt";
constexpr const char *ssh_parameter = "root.Network.SSH.Enabled";
constexpr const char *ftp_parameter = "root.Network.FTP.Enabled";
constexpr std::size_t setting_max = 9;
constexpr std::size_t line_max = 19;
constexpr bool at_once = true;

// "", logged, when it can't be read or is too long for a setting.
std::string ask_device(TVParameter *handle, const char *name) {
    gchar *value = nullptr;
    const bool found = tv_parameter_get(handle, name, &value, nullptr) != FALSE;
    const gchar_ptr owner(value);
    errno = 0;
    std::string setting = found ? value : "";
    if (!found || setting.size() > setting_max) {
        log_warning("Could not get status of %s.", name);
        setting.clear();
    }
    return setting;
}

void set_parameter(TVParameter *handle, const char *name, const char *value, bool save_now) {
    if (tv_parameter_set(handle, name, value, save_now, nullptr) == FALSE) {
        errno = 0;
        log_warning("Could not set %s.", name);
    }
}

} // namespace

void store_SSH_FTP_settings(TVParameter *handle, std::string &ssh, std::string &ftp) {
    ssh.clear();
    ftp.clear();
    if (is_file(settings_path)) {
        const unique_file file = file_open_or_warn(settings_path, "r");
        std::string line;
        while (file && read_line(file.get(), line_max, line)) {
            str_terminate_at(line, '\n');
            if (line.starts_with("SSH:")) {
                ssh = line.substr(4, setting_max);
            } else if (line.starts_with("FTP:")) {
                ftp = line.substr(4, setting_max);
            }
        }
        return;
    }
    ssh = ask_device(handle, ssh_parameter);
    ftp = ask_device(handle, ftp_parameter);
    // With neither read there is nothing to store; the next start asks again.
    if (!ssh.empty() || !ftp.empty()) {
        file_replace(settings_path, "SSH:" + ssh + "\nFTP:" + ftp + "\n");
    }
}

void activate_SSH_FTP(TVParameter *handle) {
    set_parameter(handle, ssh_parameter, "yes", at_once);
    set_parameter(handle, ftp_parameter, "yes", at_once);
}

void restore_SSH_FTP_settings(TVParameter *handle, const std::string &ssh, const std::string &ftp) {
    if (!ssh.empty()) {
        set_parameter(handle, ssh_parameter, ssh.c_str(), !at_once);
    }
    if (!ftp.empty()) {
        set_parameter(handle, ftp_parameter, ftp.c_str(), !at_once);
    }
}
