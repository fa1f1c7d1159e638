// The web page's main view: the daemon's state, the device, and every session found. Main loop
// only.
#pragma once

#include "http.h"

#include <string>

void action_list_data(GDataOutputStream *stream, GHashTable *arguments);

// The sessions of a list file of the collection script as a JSON array. Of a truncated or damaged
// list, whatever whole lines name is listed.
enum class session_list_kind { found, lost };
std::string session_list_json(const char *path, session_list_kind kind);
