// The device's SSH and FTP services: switched on while the daemon runs, given back their settings
// when it stops. Main loop only.
#pragma once

#include <optional>
#include <string>
#include <tvparameter.h>

// The settings before the package's very first start, at most 9 characters; empty when they could
// not be read. Set at start, none after the clean-up.
extern std::optional<std::string> ssh_setting_before;
extern std::optional<std::string> ftp_setting_before;

// Reads both settings: from parameters.txt if it is there, else from the device, and then keeps
// them in that file, which nobody changes afterwards. What can't be read is logged and empty.
void store_SSH_FTP_settings(TVParameter *handle, std::string &ssh, std::string &ftp);

// Switches both services on, saved at once.
void activate_SSH_FTP(TVParameter *handle);

// Gives both services their settings back; one that isn't known stays as it is.
void restore_SSH_FTP_settings(TVParameter *handle, const std::string &ssh, const std::string &ftp);
