// The web page's main view: the daemon's state, the device, and every session found. Main loop
// only.
#pragma once

#include "http.h"

#include <string>

void action_list_data(GDataOutputStream *stream, GHashTable *arguments);

// The sessions of a list file that the collection script has written, as the JSON array's text.
// What a cut or damaged list still names in whole lines is listed.
enum class session_list_kind { found, lost };
std::string session_list_json(const char *path, session_list_kind kind);
