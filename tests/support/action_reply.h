// Calls an action's handler the way the dispatcher does.
#pragma once

#include "http.h"

#include <map>
#include <string>

// The whole reply.
std::string reply_of(http_callback handler, const std::map<std::string, std::string> &arguments);

// The reply without its header block.
std::string body_of(http_callback handler, const std::map<std::string, std::string> &arguments);
