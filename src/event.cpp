#include "event.h"

#include "glib_ptr.h"
#include "log.h"
#include "strutil.h"

#include <cerrno>
#include <string>

namespace {

using event_ptr = std::unique_ptr<TVEvent, deleter<tv_event_free>>;

constexpr const char *topic_namespace = "tnstarvo";

// The platform's failures have no errno of their own, and its calls leave that of inner workings:
// it is cleared before a failure is logged.
TVEventHandler *event_handler; // made once, never freed: the platform has no call for it

// Names as the platform takes them: no blanks, no dots.
std::string nfd_event_name(const char *start, const char *address, int port) {
    std::string name = format_bounded(event_nfd_name_size, "%s%sp%d", start, address, port);
    str_terminate_at(name, ' ');
    str_replace_char(name, '.', 'o');
    return name;
}

std::uint32_t declare_nfd(const char *name_start, const char *address, int port,
                          const char *result) {
    const std::string name = nfd_event_name(name_start, address, port);
    const std::string nice_name =
        format_bounded(event_nfd_nice_name_size, "IP: %s PORT: %d [%s]", address, port, result);
    const std::uint32_t id = declare_event(name.c_str(), nice_name.c_str());
    if (id == 0) {
        log_error("[nfd] Error declaring event '%s' (%s)", name.c_str(), nice_name.c_str());
    }
    return id;
}

struct systemlogs_names {
    std::string name;
    std::string nice_name;
};

systemlogs_names names_of_trigger(unsigned number, const char *text) {
    systemlogs_names names{
        format_bounded(event_systemlogs_name_size, "systemlogs_%u", number),
        format_bounded(event_systemlogs_nice_name_size, "System logs: %s", text)};
    str_replace_char(names.name, ' ', '_');
    return names;
}

} // namespace

void event_init() {
    event_handler = tv_event_handler_new();
}

event_key_value_set_ptr new_event_keyset(const char *name, const char *nice_name) {
    event_key_value_set_ptr set(tv_event_key_value_set_new());
    tv_event_key_value_set_add_key_values(
        set.get(), nullptr, "topic0", topic_namespace, "VelaPlatform", TV_EVENT_VALUE_TYPE_STRING,
        "topic1", topic_namespace, "Vandrel", TV_EVENT_VALUE_TYPE_STRING, "topic2", topic_namespace,
        name, TV_EVENT_VALUE_TYPE_STRING, TV_EVENT_KEYS_END);
    tv_event_key_value_set_add_nice_names(set.get(), nullptr, "topic1", topic_namespace, nullptr,
                                          "TARVO Vandrel", "topic2", topic_namespace, nullptr,
                                          nice_name, TV_EVENT_KEYS_END);
    return set;
}

std::uint32_t declare_event(const char *name, const char *nice_name) {
    const event_key_value_set_ptr keys = new_event_keyset(name, nice_name);
    constexpr gboolean stateless = TRUE;
    guint declaration = 0;
    if (tv_event_handler_declare(event_handler, keys.get(), stateless, &declaration, nullptr,
                                 nullptr, nullptr) == FALSE) {
        errno = 0;
        return 0;
    }
    return declaration;
}

bool send_event(std::uint32_t declaration) {
    const event_key_value_set_ptr no_data(tv_event_key_value_set_new());
    const event_ptr event(tv_event_new(no_data.get(), nullptr));
    const bool sent =
        tv_event_handler_send_event(event_handler, declaration, event.get(), nullptr) != FALSE;
    if (!sent) {
        errno = 0;
    }
    return sent;
}

nfd_event_ids declare_event_nfd(const char *address, int port) {
    nfd_event_ids ids;
    ids.ping_ok = declare_nfd("nfd_ip", address, port, "PING OK");
    ids.ping_not_ok = declare_nfd("nfd_not_ip", address, port, "PING NOT OK");
    return ids;
}

void nfd_event_undeclare(nfd_event_ids ids) {
    for (const std::uint32_t id : {ids.ping_ok, ids.ping_not_ok}) {
        if (id != 0) {
            tv_event_handler_undeclare(event_handler, id, nullptr);
        }
    }
}

void send_event_nfd(std::uint32_t declaration) {
    if (!send_event(declaration)) {
        log_error("[nfd] Error sending event\n");
    }
}

std::uint32_t declare_event_systemlogs(unsigned number, const char *text) {
    const systemlogs_names names = names_of_trigger(number, text);
    const std::uint32_t id = declare_event(names.name.c_str(), names.nice_name.c_str());
    if (id == 0) {
        log_error("Failed to create the event: [System logs: %s]", text);
    }
    return id;
}

void send_event_systemlogs(std::uint32_t declaration) {
    (void)send_event(declaration);
}

void event_undeclare_systemlogs(std::uint32_t declaration) {
    tv_event_handler_undeclare(event_handler, declaration, nullptr);
}

std::uint32_t subscribe_event_systemlogs(unsigned number, const char *text,
                                         TVSubscriptionCallback callback, void *user_data) {
    const systemlogs_names names = names_of_trigger(number, text);
    const event_key_value_set_ptr keys =
        new_event_keyset(names.name.c_str(), names.nice_name.c_str());
    guint subscription = 0;
    if (tv_event_handler_subscribe(event_handler, keys.get(), &subscription, callback, user_data,
                                   nullptr) == FALSE ||
        subscription == 0) {
        errno = 0;
        log_error("Failed to subscribe for the event: [System logs: %s]", text);
        return 0;
    }
    return subscription;
}

int unsubscribe_event_systemlogs(std::uint32_t subscription) {
    if (tv_event_handler_unsubscribe(event_handler, subscription, nullptr) == FALSE) {
        errno = 0;
        log_error("Failed to unsubscribe for the subscription: [%d]",
                  static_cast<int>(subscription));
        return -1;
    }
    return 0;
}
