#include "dns.h"

#include "handle.h"
#include "http.h"
#include "loop.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t addresses_max = 32; // of a family

using addresses_ptr = std::unique_ptr<addrinfo, deleter<::freeaddrinfo>>;

// "" when there is none.
std::string name_of(const sockaddr *address, socklen_t size) {
    std::array<char, NI_MAXHOST> name{};
    const int failure =
        ::getnameinfo(address, size, name.data(), name.size(), nullptr, 0, NI_NAMEREQD);
    return failure == 0 ? name.data() : "";
}

std::string name_of_ipv4(const char *text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    return ::inet_aton(text, &address.sin_addr) == 1
               ? name_of(reinterpret_cast<const sockaddr *>(&address), sizeof address)
               : "";
}

std::string name_of_ipv6(const char *text) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    return ::inet_pton(AF_INET6, text, &address.sin6_addr) == 1
               ? name_of(reinterpret_cast<const sockaddr *>(&address), sizeof address)
               : "";
}

// Distinct ones, in the resolver's order.
std::vector<std::string> addresses_of(const char *host, int family) {
    addrinfo hints{};
    hints.ai_family = family;
    addrinfo *list = nullptr;
    if (::getaddrinfo(host, "http", &hints, &list) != 0) {
        return {};
    }
    const addresses_ptr owner(list);
    std::vector<std::string> found;
    for (; list != nullptr && found.size() < addresses_max; list = list->ai_next) {
        std::array<char, NI_MAXHOST> text{};
        if (::getnameinfo(list->ai_addr, list->ai_addrlen, text.data(), text.size(), nullptr, 0,
                          NI_NUMERICHOST) == 0 &&
            std::find(found.begin(), found.end(), text.data()) == found.end()) {
            found.emplace_back(text.data());
        }
    }
    return found;
}

const char *failed(UrlType type) {
    return type == URLTYPE_HOST   ? "DNS Lookup failed for both IPv4 and IPv6"
           : type == URLTYPE_IPV4 ? "Reverse IPv4 DNS Lookup failed"
                                  : "Reverse IPv6 DNS Lookup failed";
}

std::string addresses_text(const char *host) {
    const std::vector<std::string> ipv4 = addresses_of(host, AF_INET);
    const std::vector<std::string> ipv6 = addresses_of(host, AF_INET6);
    if (ipv4.empty() && ipv6.empty()) {
        return failed(URLTYPE_HOST);
    }
    std::string text;
    for (const std::string &address : ipv4) {
        text += "IPv4 address: " + address + "<br>";
    }
    for (const std::string &address : ipv6) {
        text += "IPv6 address: " + address + "<br>";
    }
    return text;
}

std::string reverse_text(UrlType type, const char *address) {
    constexpr const char *note =
        "<i>Note that reverse lookups are limited to one PTR record (default case)</i>";
    const bool ipv4 = type == URLTYPE_IPV4;
    const std::string name = ipv4 ? name_of_ipv4(address) : name_of_ipv6(address);
    if (name.empty()) {
        return failed(type);
    }
    return "Hostname: " + name + (ipv4 ? "<br>" : "<br><br>") + note + "<br>";
}

bool is_groups_of_digits(std::string_view text) {
    std::size_t digits = 0;
    for (const char ch : text) {
        if (ch == '.' && digits > 0) {
            digits = 0;
        } else if (!g_ascii_isdigit(ch) || ++digits > 3) {
            return false;
        }
    }
    return !text.empty();
}

bool is_groups_between_colons(std::string_view text) {
    std::size_t word = 0;
    for (const char ch : text) {
        word = g_ascii_isalnum(ch) ? word + 1 : 0;
        if (word > 4) {
            return false;
        }
    }
    return std::count(text.begin(), text.end(), ':') >= 2;
}

// Limit for a dead resolver, whose defaults are half a minute for each of two families.
constexpr std::chrono::seconds lookup_limit{20};

// The resolver waits inside the library; on a thread, whose settings are its own, the daemon's
// timers go on meanwhile. One that does not come back keeps what it works on.
struct lookup {
    std::string address;
    std::string answer; // complete once the eventfd is raised
    unique_fd done{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

void look_up(const std::shared_ptr<lookup> &one) noexcept {
    ::res_init();
    _res.retrans = 2;
    _res.retry = 2;
    const UrlType type = url_type_of(one->address);
    one->answer = type == URLTYPE_HOST ? addresses_text(one->address.c_str())
                                       : reverse_text(type, one->address.c_str());
    (void)::eventfd_write(one->done.get(), 1);
}

std::string answer_in_time(const char *address) {
    const auto one = std::make_shared<lookup>();
    one->address = address;
    std::thread(look_up, one).detach();
    const auto end = std::chrono::steady_clock::now() + lookup_limit;
    eventfd_t raised = 0;
    while (::eventfd_read(one->done.get(), &raised) != 0) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left <= std::chrono::milliseconds(0)) {
            return failed(url_type_of(address));
        }
        loop_wait(one->done.get(), G_IO_IN, left);
    }
    return one->answer;
}

} // namespace

UrlType url_type_of(std::string_view address) {
    if (is_groups_of_digits(address)) {
        return URLTYPE_IPV4;
    }
    return is_groups_between_colons(address) ? URLTYPE_IPV6 : URLTYPE_HOST;
}

void write_out_dns(const char *address, GDataOutputStream *stream) {
    http_write(stream, answer_in_time(address));
    errno = 0;
}
