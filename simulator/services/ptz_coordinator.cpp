// com.tarvo.PTZ.Coordinator: moves the head for whoever asks. Auxiliary "reset" sends it through
// its end stops and back; com.tarvo.Simulator.PTZ.Coordinator.Resets tells how often that was done.
#include "service.h"

namespace {

guint resets = 0;

void call(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation) {
    if (g_str_equal(method, "Resets")) {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", resets));
        return;
    }
    const gchar *operation = nullptr;
    g_variant_get(arguments, "(&si&s)", nullptr, nullptr, &operation);
    if (!g_str_equal(operation, "reset")) {
        g_dbus_method_invocation_return_error(invocation, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED,
                                              "There is no operation '%s'.", operation);
        return;
    }
    ++resets;
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

} // namespace

const bus_service ptz_coordinator_service = {
    "com.tarvo.PTZ.Coordinator",
    "/com/tarvo/PTZ/Coordinator/1",
    R"xml(<node>
  <interface name="com.tarvo.PTZ.Coordinator">
    <method name="Auxiliary">
      <arg name="requester" type="s" direction="in"/>
      <arg name="channel" type="i" direction="in"/>
      <arg name="operation" type="s" direction="in"/>
    </method>
  </interface>
  <interface name="com.tarvo.Simulator.PTZ.Coordinator">
    <method name="Resets"><arg name="count" type="u" direction="out"/></method>
  </interface>
</node>)xml",
    call,
};
