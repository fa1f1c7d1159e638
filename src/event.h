// The daemon's own events on the platform's event service. They are stateless and carry no data:
// the topic says it all. Everything here is called on the main loop.
#pragma once

#include "handle.h"

#include <cstdint>
#include <memory>
#include <tvevent.h>

// The declarations of one network-device rule; an id of 0 is not declared.
struct nfd_event_ids {
    std::uint32_t ping_ok = 0;
    std::uint32_t ping_not_ok = 0;
};

using event_key_value_set_ptr =
    std::unique_ptr<TVEventKeyValueSet, deleter<tv_event_key_value_set_free>>;

// The largest texts that the names and nice names below have room for, in bytes. Whoever takes them
// from a request or a file checks first; longer ones end the process.
inline constexpr std::size_t event_nfd_name_size = 100;
inline constexpr std::size_t event_nfd_nice_name_size = 100;
inline constexpr std::size_t event_systemlogs_name_size = 128;
inline constexpr std::size_t event_systemlogs_nice_name_size = 256;

// Connects to the event service. Without one every operation below fails softly.
void event_init();

// The topic of an event: topic0 "VelaPlatform", topic1 "Vandrel", topic2 the name.
event_key_value_set_ptr new_event_keyset(const char *name, const char *nice_name);

// The declaration's id, or 0 if the platform refused.
std::uint32_t declare_event(const char *name, const char *nice_name);
// Sends an event stamped with the current time.
bool send_event(std::uint32_t declaration);

// The two events of a network device that answers or does not; a refused one is logged and 0.
nfd_event_ids declare_event_nfd(const char *address, int port);
void nfd_event_undeclare(nfd_event_ids ids);
// A failure is logged.
void send_event_nfd(std::uint32_t declaration);

// The event of system-log trigger number N. The id, or 0 after an error line.
std::uint32_t declare_event_systemlogs(unsigned number, const char *text);
// A failure is not logged: the line would be another one for the triggers to match.
void send_event_systemlogs(std::uint32_t declaration);
void event_undeclare_systemlogs(std::uint32_t declaration);

// Subscribes to the daemon's own system-log event number N. The subscription's id, or 0 after an
// error line. After unsubscribing returns no callback comes.
std::uint32_t subscribe_event_systemlogs(unsigned number, const char *text,
                                         TVSubscriptionCallback callback, void *user_data);
// 0, or -1 after an error line.
int unsubscribe_event_systemlogs(std::uint32_t subscription);
