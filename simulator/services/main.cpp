// The device's services on the simulated camera's system bus, all in one program.
//
//   device_services READY     makes the file READY once every service can be called
//
// It ends when it loses the bus or a name; the camera's init starts it again.
#include "glib_ptr.h"
#include "service.h"

#include <cstdio>
#include <cstdlib>

namespace {

const bus_service *const services[] = {&ptz_coordinator_service, &ptz_service, &storage_service,
                                        &streamer_service, &temperature_service};

const char *ready_path = nullptr;
std::size_t names_owned = 0;

void on_call(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *method,
             GVariant *arguments, GDBusMethodInvocation *invocation, gpointer service) noexcept {
    static_cast<const bus_service *>(service)->call(method, arguments, invocation);
}

GVariant *on_property(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                      const gchar *property, GError **, gpointer service) noexcept {
    return static_cast<const bus_service *>(service)->property(property);
}

void on_name_owned(GDBusConnection *, const gchar *, gpointer) noexcept {
    if (++names_owned == std::size(services)) {
        g_file_set_contents(ready_path, "", 0, nullptr);
    }
}

void on_name_lost(GDBusConnection *, const gchar *name, gpointer) noexcept {
    std::fprintf(stderr, "lost the name %s\n", name);
    std::exit(EXIT_FAILURE);
}

bool offer(GDBusConnection *connection, const bus_service &service, GError **error) {
    static const GDBusInterfaceVTable table = {on_call, on_property, nullptr, {}};
    // Lives as long as the program, as the objects do.
    GDBusNodeInfo *description = g_dbus_node_info_new_for_xml(service.interfaces, error);
    if (description == nullptr) {
        return false;
    }
    for (GDBusInterfaceInfo **interface = description->interfaces; *interface; ++interface) {
        if (g_dbus_connection_register_object(connection, service.object_path, *interface, &table,
                                              const_cast<bus_service *>(&service), nullptr,
                                              error) == 0) {
            return false;
        }
    }
    g_bus_own_name_on_connection(connection, service.name, G_BUS_NAME_OWNER_FLAGS_NONE,
                                 on_name_owned, on_name_lost, nullptr, nullptr);
    return true;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: device_services READY\n");
        return 2;
    }
    ready_path = argv[1];
    gerror_ptr error;
    const gobject_ptr<GDBusConnection> connection(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error_out(error)));
    if (!connection) {
        std::fprintf(stderr, "%s\n", error->message);
        return EXIT_FAILURE;
    }
    for (const bus_service *service : services) {
        if (!offer(connection.get(), *service, error_out(error))) {
            std::fprintf(stderr, "%s: %s\n", service->name, error->message);
            return EXIT_FAILURE;
        }
    }
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
