// Look-ups through the C library's resolver. They block until it answers or gives up.
#pragma once

#include <gio/gio.h>
#include <string_view>

enum UrlType { URLTYPE_HOST = 0, URLTYPE_IPV4 = 1, URLTYPE_IPV6 = 2 };

// What a text is looked up as, by its form alone: groups of at most three digits between dots are
// URLTYPE_IPV4 ("10.0.0.1", "1.2", "123"); what has two colons and no word of more than four
// letters and digits is URLTYPE_IPV6 ("fe80::1"); everything else is a host's name.
UrlType url_type_of(std::string_view address);

// Writes what is found as lines that end in "<br>": the name of an address, the addresses of a
// name.
void write_out_dns(const char *address, GDataOutputStream *stream);
