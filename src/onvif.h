// The device's ONVIF media configuration. Main loop only.
#pragma once

#include <string>

// Copies the configuration into the session under the current time's name; nothing is done on a
// device without one.
void onvif_copy_media_conf(const std::string &session_directory);
