// Prints the platform's events as they come on the system bus, each followed by a line of dashes:
//
//   Timestamp: 2026-11-21T04:05:06.789012Z
//   [tnstarvo:topic0 = 'Package'] [tnstarvo:topic1 = 'Vandrel']
//    [port = '1'] {onvif-source}
//    [active = '1'] {onvif-data} {property-state}
//   -----------------------------------
//
//   eventlistener [-r]     -r: without an explanation in front
//
// Items whose key names a place are the event's source. It ends when the bus goes.
#include "glib_ptr.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char *interface_name = "com.tarvo.Event1";
constexpr const char *separator = "-----------------------------------\n";

bool is_source(const std::string &key) {
    for (const char *name : {"port", "channel", "token", "source", "disk_id"}) {
        if (key == name) {
            return true;
        }
    }
    return false;
}

std::string items(GVariant *dictionary, const char *between) {
    std::string text;
    GVariantIter entries;
    const gchar *key = nullptr;
    const gchar *value = nullptr;
    g_variant_iter_init(&entries, dictionary);
    while (g_variant_iter_next(&entries, "{&s&s}", &key, &value)) {
        text += std::string(text.empty() ? "" : between) + "[" + key + " = '" + value + "']";
    }
    return text;
}

std::string time_text(gint64 time_us) {
    GDateTime *seconds = g_date_time_new_from_unix_utc(time_us / G_USEC_PER_SEC);
    const gchar_ptr text(g_date_time_format(seconds, "%Y-%m-%dT%H:%M:%S"));
    g_date_time_unref(seconds);
    char micro[16];
    std::snprintf(micro, sizeof micro, ".%06dZ", static_cast<int>(time_us % G_USEC_PER_SEC));
    return std::string(text ? text.get() : "") + micro;
}

void on_event(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
              GVariant *body, gpointer) noexcept {
    if (!g_variant_is_of_type(body, G_VARIANT_TYPE("(a{ss}a{ss}x)"))) {
        return;
    }
    GVariant *topic = nullptr;
    GVariant *data = nullptr;
    gint64 time_us = 0;
    g_variant_get(body, "(@a{ss}@a{ss}x)", &topic, &data, &time_us);
    std::string text = "Timestamp: " + time_text(time_us) + "\n" + items(topic, " ") + "\n";
    GVariantIter entries;
    const gchar *key = nullptr;
    const gchar *value = nullptr;
    g_variant_iter_init(&entries, data);
    while (g_variant_iter_next(&entries, "{&s&s}", &key, &value)) {
        text += std::string(" [") + key + " = '" + value + "'] " +
                (is_source(key) ? "{onvif-source}" : "{onvif-data} {property-state}") + "\n";
    }
    text += separator;
    g_variant_unref(topic);
    g_variant_unref(data);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout)) {
        std::exit(EXIT_FAILURE); // whoever listened is gone
    }
}

} // namespace

int main(int argc, char *argv[]) {
    gerror_ptr error;
    const gobject_ptr<GDBusConnection> connection(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error_out(error)));
    if (!connection) {
        std::fprintf(stderr, "%s\n", error->message);
        return EXIT_FAILURE;
    }
    g_dbus_connection_signal_subscribe(connection.get(), nullptr, interface_name, "Event", nullptr,
                                       nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_event, nullptr,
                                       nullptr);
    // A round trip: from here on no event is missed.
    g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr);
    if (argc < 2 || std::strcmp(argv[1], "-r") != 0) {
        std::printf("Listening to the events of the device\n");
        std::fflush(stdout);
    }
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
