// com.tarvo.NetworkShare: where the camera's network share lies. Its one device,
// /com/tarvo/NetworkShare/device1, is what root.Storage.S1.DeviceNode names.
#include "service.h"

namespace {

void no_call(const char *, GVariant *, GDBusMethodInvocation *) {}

GVariant *property(const char *name) {
    return g_variant_new_string(g_str_equal(name, "address") ? "192.168.0.20" : "recordings");
}

} // namespace

const bus_service network_share_service = {
    "com.tarvo.NetworkShare",
    "/com/tarvo/NetworkShare/device1",
    R"xml(<node>
  <interface name="com.tarvo.NetworkShare.Device">
    <property name="address" type="s" access="read"/>
    <property name="share" type="s" access="read"/>
  </interface>
</node>)xml",
    no_call,
    property,
};
