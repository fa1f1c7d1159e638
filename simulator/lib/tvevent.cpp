// The simulated camera's event service: signals on the system bus, so that every program of the
// camera sees what the others send. Interface com.tarvo.Event1, path /com/tarvo/Event1:
//
//   Declared(u id, a{ss} topic, a{ss} niceNames, b stateless)
//   Undeclared(u id)
//   Event(a{ss} topic, a{ss} data, x timeUs)
//
// Ids count per program; the bus's sender name makes them unique. A key with a name space is
// "NAMESPACE:KEY". In niceNames "KEY" leads to the nice name of the value, "KEY@" to that of the
// key. After a break of the bus the declarations are announced again.
#include "tvevent.h"

#include "glib_ptr.h"

#include <cstdarg>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr const char *interface_name = "com.tarvo.Event1";
constexpr const char *object_path = "/com/tarvo/Event1";
constexpr unsigned reconnect_period_s = 1;

using Texts = std::map<std::string, std::string>;

struct Declaration {
    Texts topic;
    Texts nice_names;
    bool stateless;
};

struct Subscription {
    Texts topic;
    TVSubscriptionCallback callback;
    gpointer user_data;
};

} // namespace

struct TVEventKeyValueSet {
    Texts values;
    Texts nice_names;
};

struct TVEvent {
    Texts data;
    gint64 time_us;
};

struct TVEventHandler {
    gobject_ptr<GDBusConnection> connection;
    std::map<guint, Declaration> declarations;
    std::map<guint, Subscription> subscriptions;
    guint last_id = 0;
    guint reconnect_timer = 0;
};

namespace {

gboolean fail(GError **error, GIOErrorEnum code, const char *message) {
    g_set_error_literal(error, G_IO_ERROR, code, message);
    return FALSE;
}

// The bus takes valid UTF-8 only, and a nice name may hold bytes of a log line.
std::string valid_text(const gchar *text) {
    return gchar_ptr(g_utf8_make_valid(text, -1)).get();
}

std::string full_key(const gchar *key, const gchar *name_space) {
    return valid_text(name_space ? (std::string(name_space) + ":" + key).c_str() : key);
}

GVariant *to_variant(const Texts &texts) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
    for (const auto &[key, value] : texts)
        g_variant_builder_add(&builder, "{ss}", key.c_str(), value.c_str());
    return g_variant_builder_end(&builder);
}

Texts from_variant(GVariant *dictionary) {
    Texts texts;
    GVariantIter entries;
    const gchar *key = nullptr;
    const gchar *value = nullptr;
    g_variant_iter_init(&entries, dictionary);
    while (g_variant_iter_next(&entries, "{&s&s}", &key, &value))
        texts[key] = value;
    return texts;
}

bool has_all(const Texts &texts, const Texts &wanted) {
    for (const auto &[key, value] : wanted) {
        const auto found = texts.find(key);
        if (found == texts.end() || found->second != value)
            return false;
    }
    return true;
}

gboolean emit(const TVEventHandler &handler, const char *signal, GVariant *body, GError **error) {
    return g_dbus_connection_emit_signal(handler.connection.get(), nullptr, object_path,
                                         interface_name, signal, body, error);
}

gboolean announce(const TVEventHandler &handler, guint id, const Declaration &declaration,
                  GError **error) {
    GVariant *body = g_variant_new("(u@a{ss}@a{ss}b)", id, to_variant(declaration.topic),
                                   to_variant(declaration.nice_names),
                                   static_cast<gboolean>(declaration.stateless));
    return emit(handler, "Declared", body, error);
}

void on_event(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
              GVariant *body, gpointer data) noexcept {
    auto &handler = *static_cast<TVEventHandler *>(data);
    if (!g_variant_is_of_type(body, G_VARIANT_TYPE("(a{ss}a{ss}x)")))
        return;
    GVariant *topic_variant = nullptr;
    GVariant *data_variant = nullptr;
    gint64 time_us = 0;
    g_variant_get(body, "(@a{ss}@a{ss}x)", &topic_variant, &data_variant, &time_us);
    const Texts topic = from_variant(topic_variant);
    const Texts event_data = from_variant(data_variant);
    g_variant_unref(topic_variant);
    g_variant_unref(data_variant);

    // A callback may end any subscription and make new ones.
    std::vector<guint> matching;
    for (const auto &[id, subscription] : handler.subscriptions) {
        if (has_all(topic, subscription.topic))
            matching.push_back(id);
    }
    for (const guint id : matching) {
        const auto found = handler.subscriptions.find(id);
        if (found != handler.subscriptions.end())
            found->second.callback(
                id, std::make_unique<TVEvent>(TVEvent{event_data, time_us}).release(),
                found->second.user_data);
    }
}

void on_closed(GDBusConnection *, gboolean, GError *, gpointer data) noexcept;

// Connects when there is no connection or it has broken.
gboolean ensure_connected(TVEventHandler &handler, GError **error) {
    if (handler.connection && !g_dbus_connection_is_closed(handler.connection.get()))
        return TRUE;
    const gchar_ptr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
    if (!address)
        return FALSE;
    // A connection of its own: the shared one ends the process when the bus goes, and stays closed.
    constexpr auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection *connection =
        g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr, nullptr, error);
    if (!connection)
        return FALSE;
    if (handler.connection)
        g_signal_handlers_disconnect_by_data(handler.connection.get(), &handler);
    handler.connection.reset(connection);
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    g_signal_connect(connection, "closed", G_CALLBACK(on_closed), &handler);
    g_dbus_connection_signal_subscribe(connection, nullptr, interface_name, "Event", object_path,
                                       nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_event, &handler,
                                       nullptr);
    for (const auto &[id, declaration] : handler.declarations)
        announce(handler, id, declaration, nullptr);
    return TRUE;
}

gboolean on_reconnect_time(gpointer data) noexcept {
    auto &handler = *static_cast<TVEventHandler *>(data);
    if (!ensure_connected(handler, nullptr))
        return G_SOURCE_CONTINUE;
    handler.reconnect_timer = 0;
    return G_SOURCE_REMOVE;
}

// Subscriptions wait for events without calling anything, so they can't leave it to the next call.
void on_closed(GDBusConnection *, gboolean, GError *, gpointer data) noexcept {
    auto &handler = *static_cast<TVEventHandler *>(data);
    if (handler.reconnect_timer == 0)
        handler.reconnect_timer =
            g_timeout_add_seconds(reconnect_period_s, on_reconnect_time, &handler);
}

gboolean usable(TVEventHandler *handler, GError **error) {
    if (!handler)
        return fail(error, G_IO_ERROR_INVALID_ARGUMENT, "no event handler");
    return ensure_connected(*handler, error);
}

struct Completion {
    guint declaration;
    TVDeclarationCompleteCallback callback;
    gpointer user_data;
};

gboolean on_declaration_complete(gpointer data) noexcept {
    const auto &completion = *static_cast<Completion *>(data);
    completion.callback(completion.declaration, completion.user_data);
    return G_SOURCE_REMOVE;
}

} // namespace

TVEventHandler *tv_event_handler_new(void) {
    // Never freed, one for the program: a topic is declared once, whoever does it.
    static TVEventHandler *const handler = std::make_unique<TVEventHandler>().release();
    return ensure_connected(*handler, nullptr) ? handler : nullptr;
}

gboolean tv_event_handler_declare(TVEventHandler *handler, TVEventKeyValueSet *keys,
                                  gboolean stateless, guint *declaration,
                                  TVDeclarationCompleteCallback callback, gpointer user_data,
                                  GError **error) {
    *declaration = 0;
    if (!usable(handler, error))
        return FALSE;
    if (!keys || keys->values.empty())
        return fail(error, G_IO_ERROR_INVALID_ARGUMENT, "an event needs a topic");
    for (const auto &[id, present] : handler->declarations) {
        if (present.topic == keys->values)
            return fail(error, G_IO_ERROR_EXISTS, "the topic is declared already");
    }
    const guint id = handler->last_id + 1;
    Declaration made{keys->values, keys->nice_names, stateless != FALSE};
    if (!announce(*handler, id, made, error))
        return FALSE;
    handler->declarations.emplace(id, std::move(made));
    handler->last_id = *declaration = id;
    if (callback) {
        auto completion = std::make_unique<Completion>();
        *completion = {id, callback, user_data};
        g_idle_add_full(
            G_PRIORITY_DEFAULT, on_declaration_complete, completion.release(), [](gpointer data) {
                const std::unique_ptr<Completion> owned(static_cast<Completion *>(data));
            });
    }
    return TRUE;
}

gboolean tv_event_handler_undeclare(TVEventHandler *handler, guint declaration, GError **error) {
    if (!handler || handler->declarations.erase(declaration) == 0)
        return fail(error, G_IO_ERROR_NOT_FOUND, "no such declaration");
    // A bus that is away has forgotten the declaration anyway.
    if (ensure_connected(*handler, nullptr))
        emit(*handler, "Undeclared", g_variant_new("(u)", declaration), nullptr);
    return TRUE;
}

gboolean tv_event_handler_send_event(TVEventHandler *handler, guint declaration, TVEvent *event,
                                     GError **error) {
    if (!usable(handler, error))
        return FALSE;
    const auto found = handler->declarations.find(declaration);
    if (found == handler->declarations.end() || !event)
        return fail(error, G_IO_ERROR_NOT_FOUND, "no such declaration, or no event");
    GVariant *body = g_variant_new("(@a{ss}@a{ss}x)", to_variant(found->second.topic),
                                   to_variant(event->data), event->time_us);
    return emit(*handler, "Event", body, error);
}

gboolean tv_event_handler_subscribe(TVEventHandler *handler, TVEventKeyValueSet *keys,
                                    guint *subscription, TVSubscriptionCallback callback,
                                    gpointer user_data, GError **error) {
    *subscription = 0;
    if (!usable(handler, error))
        return FALSE;
    if (!keys || !callback)
        return fail(error, G_IO_ERROR_INVALID_ARGUMENT, "a subscription needs keys and a callback");
    *subscription = ++handler->last_id;
    handler->subscriptions[*subscription] = {keys->values, callback, user_data};
    return TRUE;
}

gboolean tv_event_handler_unsubscribe(TVEventHandler *handler, guint subscription, GError **error) {
    if (!handler || handler->subscriptions.erase(subscription) == 0)
        return fail(error, G_IO_ERROR_NOT_FOUND, "no such subscription");
    return TRUE;
}

TVEventKeyValueSet *tv_event_key_value_set_new(void) {
    return std::make_unique<TVEventKeyValueSet>().release();
}

gboolean tv_event_key_value_set_add_key_values(TVEventKeyValueSet *set, GError **error, ...) {
    Texts values = set->values;
    bool good = true;
    va_list list;
    va_start(list, error);
    while (const gchar *key = good ? va_arg(list, const gchar *) : nullptr) {
        const auto *name_space = va_arg(list, const gchar *);
        const auto *value = va_arg(list, const gchar *);
        good = va_arg(list, int) == TV_EVENT_VALUE_TYPE_STRING && value;
        if (good)
            values[full_key(key, name_space)] = valid_text(value);
    }
    va_end(list);
    if (!good)
        return fail(error, G_IO_ERROR_INVALID_ARGUMENT, "a value is missing or is not a string");
    set->values = std::move(values);
    return TRUE;
}

gboolean tv_event_key_value_set_add_nice_names(TVEventKeyValueSet *set, GError **error, ...) {
    Texts nice_names = set->nice_names;
    bool good = true;
    va_list list;
    va_start(list, error);
    while (const gchar *key = good ? va_arg(list, const gchar *) : nullptr) {
        const std::string name = full_key(key, va_arg(list, const gchar *));
        const auto *key_nice_name = va_arg(list, const gchar *);
        const auto *value_nice_name = va_arg(list, const gchar *);
        good = set->values.contains(name);
        if (key_nice_name)
            nice_names[name + "@"] = valid_text(key_nice_name);
        if (value_nice_name)
            nice_names[name] = valid_text(value_nice_name);
    }
    va_end(list);
    if (!good)
        return fail(error, G_IO_ERROR_NOT_FOUND, "a key to be named is not in the set");
    set->nice_names = std::move(nice_names);
    return TRUE;
}

void tv_event_key_value_set_free(TVEventKeyValueSet *set) {
    const std::unique_ptr<TVEventKeyValueSet> owned(set);
}

TVEvent *tv_event_new(TVEventKeyValueSet *set, GDateTime *time_stamp) {
    auto event = std::make_unique<TVEvent>();
    event->time_us = time_stamp ? g_date_time_to_unix(time_stamp) * G_USEC_PER_SEC +
                                      g_date_time_get_microsecond(time_stamp)
                                : g_get_real_time();
    if (set)
        event->data = set->values;
    return event.release();
}

void tv_event_free(TVEvent *event) {
    const std::unique_ptr<TVEvent> owned(event);
}
