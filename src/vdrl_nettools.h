// Network tools that run while the page watches. Main loop only; each blocks it until its tool has
// ended. What they are given stands inside double quotes in a command line: the caller has made
// sure that it stays there and fits.
#pragma once

#include <gio/gio.h>
#include <string>

// What an address may hold so that the command lines below fit into their 2,047 and 499 bytes.
inline constexpr std::size_t nettools_ping_address_max = 2000;
inline constexpr std::size_t nettools_address_max = 400;

// Whether the text can be a quoted argument of a tool: not empty, at most `size_max` bytes, no
// option, nothing that leaves the quotes.
bool vdrl_nettools_is_argument(const std::string &text, std::size_t size_max);

// Both write each line of the tool's output at once, with "<br>" behind it, and return the pipe's
// close status: a wait status, or -1. The first takes an address, the second a command line.
int vdrl_nettools_ping(const std::string &address, GDataOutputStream *stream);
int vdrl_nettools_traceroute(const std::string &command, GDataOutputStream *stream);

// Whether something takes connections there, by `tcptest` or `nc`.
bool vdrl_nettools_portcheck(const std::string &address, const std::string &port);
