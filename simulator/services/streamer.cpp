// com.tarvo.Streamer: the video streams that clients have open. One is always there; a second one
// comes for every other five minutes. com.tarvo.Simulator.Streamer.SetStream sets a stream's
// description ("" takes it away; the others stay as they are from then on), SetReply how the
// service answers (service.h).
#include "service.h"

#include <ctime>
#include <map>

namespace {

constexpr std::time_t visit_s = 300;

bool was_set = false;
std::map<int, std::string> set_streams;
std::string reply_kind = "real";

std::map<int, std::string> streams() {
    if (was_set) {
        return set_streams;
    }
    std::map<int, std::string> found{{0, "media=video/x-h264 resolution=1920x1080 fps=25"}};
    if (std::time(nullptr) / visit_s % 2 == 0) {
        found[1] = "media=image/jpeg resolution=640x360 fps=5";
    }
    return found;
}

GVariant *descriptions() {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const auto &[number, description] : streams()) {
        g_variant_builder_add(&builder, "s", description.c_str());
    }
    return g_variant_new("(as)", &builder);
}

void call(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation) {
    const gchar *text = nullptr;
    if (g_str_equal(method, "SetReply")) {
        g_variant_get(arguments, "(&s)", &text);
        reply_kind = text;
    } else if (g_str_equal(method, "SetStream")) {
        int number = 0;
        g_variant_get(arguments, "(i&s)", &number, &text);
        set_streams = streams();
        was_set = true;
        set_streams[number] = text;
        if (*text == '\0') {
            set_streams.erase(number);
        }
    } else {
        answer_as(reply_kind, invocation, descriptions());
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

} // namespace

const bus_service streamer_service = {
    "com.tarvo.Streamer",
    "/com/tarvo/Streamer/Cache",
    R"xml(<node>
  <interface name="com.tarvo.Streamer.Cache">
    <method name="GetStreams"><arg name="streams" type="as" direction="out"/></method>
  </interface>
  <interface name="com.tarvo.Simulator.Streamer">
    <method name="SetStream">
      <arg name="number" type="i" direction="in"/>
      <arg name="description" type="s" direction="in"/>
    </method>
    <method name="SetReply"><arg name="kind" type="s" direction="in"/></method>
  </interface>
</node>)xml",
    call,
};
