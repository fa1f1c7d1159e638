// com.tarvo.Ptz1: the PTZ head's presets. The property PresetStatus is what the head does (2 moves,
// 1 stands at a preset, 0 anything else) and the preset's number, counted from 1; its changes are
// told as the bus has it. com.tarvo.Simulator.Ptz.Goto sends the head to a preset, which it
// reaches two seconds later, also to one that it has not; SetPresets names the presets anew.
#include "service.h"

#include "glib_ptr.h"

#include <vector>

namespace {

constexpr const char *object_path = "/com/tarvo/Ptz1/Channel/1";
constexpr const char *interface_name = "com.tarvo.Ptz1.Channel";
constexpr unsigned way_s = 2;
constexpr guint32 stands = 1;
constexpr guint32 moves = 2;

std::vector<std::string> presets{"Home", "Main gate", "Car park"};
guint32 status = stands;
guint32 preset = 1;
guint arrival = 0; // the timer of a move that goes on

GVariant *property(const char *) {
    return g_variant_new("(uu)", status, preset);
}

void tell(GDBusConnection *connection, guint32 new_status) {
    status = new_status;
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&changed, "{sv}", "PresetStatus", property(nullptr));
    g_dbus_connection_emit_signal(
        connection, nullptr, object_path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
        g_variant_new("(sa{sv}as)", interface_name, &changed, nullptr), nullptr);
}

gboolean arrive(gpointer connection) noexcept {
    arrival = 0;
    tell(static_cast<GDBusConnection *>(connection), stands);
    return G_SOURCE_REMOVE;
}

GVariant *all_presets() {
    GVariantBuilder names;
    g_variant_builder_init(&names, G_VARIANT_TYPE("as"));
    for (const std::string &name : presets) {
        g_variant_builder_add(&names, "s", name.c_str());
    }
    return g_variant_new("(uas)", static_cast<guint32>(presets.size()), &names);
}

void call(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation) {
    if (g_str_equal(method, "GetPresets")) {
        answer(invocation, all_presets());
        return;
    }
    if (g_str_equal(method, "Goto")) {
        GDBusConnection *connection = g_dbus_method_invocation_get_connection(invocation);
        g_variant_get(arguments, "(u)", &preset);
        if (arrival != 0) {
            g_source_remove(arrival);
        }
        tell(connection, moves);
        arrival = g_timeout_add_seconds(way_s, arrive, connection); // it lives as the program does
    } else {
        GVariantIter *names = nullptr;
        const gchar *name = nullptr;
        g_variant_get(arguments, "(as)", &names);
        presets.clear();
        while (g_variant_iter_next(names, "&s", &name)) {
            presets.emplace_back(name);
        }
        g_variant_iter_free(names);
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

} // namespace

const bus_service ptz_service = {
    "com.tarvo.Ptz1", object_path,
    R"xml(<node>
  <interface name="com.tarvo.Ptz1.Channel">
    <method name="GetPresets">
      <arg name="count" type="u" direction="out"/>
      <arg name="names" type="as" direction="out"/>
    </method>
    <property name="PresetStatus" type="(uu)" access="read"/>
  </interface>
  <interface name="com.tarvo.Simulator.Ptz">
    <method name="Goto"><arg name="preset" type="u" direction="in"/></method>
    <method name="SetPresets"><arg name="names" type="as" direction="in"/></method>
  </interface>
</node>)xml",     call,        property,
};
