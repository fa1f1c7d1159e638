// Calls an action's handler the way the dispatcher does.
#pragma once

#include "http.h"

#include <map>
#include <string>
#include <string_view>

// The arguments of a query as the daemon gets them, already decoded: "do=add&name=a b".
std::map<std::string, std::string> query(std::string_view text);

// The whole reply.
std::string reply_of(http_callback handler, const std::map<std::string, std::string> &arguments);

// The reply without its header block.
std::string body_of(http_callback handler, const std::map<std::string, std::string> &arguments);
