// com.tarvo.TemperatureController: the device's temperature sensors, heaters and fans.
//
// As long as nobody sets a sensor, it warms and cools by two degrees over a quarter of an hour, and
// the heater and the fan follow the first one. com.tarvo.Simulator.TemperatureController sets what
// is told from then on: how many there are, each one's value, and how it answers (service.h).
#include "service.h"

#include "glib_ptr.h"

#include <cmath>
#include <ctime>
#include <map>
#include <numbers>

namespace {

constexpr double period_s = 900;
constexpr double swing = 2;
constexpr double base_temperatures[] = {41.5, 38, 52.25};
constexpr double heating_below = 40.5;
constexpr double cooling_above = 42.5;

int sensor_count = static_cast<int>(std::size(base_temperatures));
int heater_count = 1;
int fan_count = 1;
std::map<int, double> set_temperatures;
std::map<int, std::string> set_heaters;
std::map<int, std::string> set_fans;
std::string reply_kind = "real";

double temperature(int sensor) {
    const auto set = set_temperatures.find(sensor);
    if (set != set_temperatures.end()) {
        return set->second;
    }
    const double base =
        base_temperatures[static_cast<std::size_t>(sensor) % std::size(base_temperatures)];
    const double angle = static_cast<double>(std::time(nullptr)) * 2 * std::numbers::pi / period_s;
    return base + std::round(std::sin(angle + sensor) * swing * 4) / 4; // quarters of a degree
}

std::string status(const std::map<int, std::string> &values, int number, bool is_on,
                   const char *on) {
    const auto set = values.find(number);
    return set != values.end() ? set->second : is_on ? on : "Stopped";
}

GVariant *all_temperatures() {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{id}"));
    for (int i = 0; i < sensor_count; ++i) {
        g_variant_builder_add(&builder, "{id}", i, temperature(i));
    }
    return g_variant_new("(a{id})", &builder);
}

GVariant *all_fans() {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{is}"));
    for (int i = 0; i < fan_count; ++i) {
        g_variant_builder_add(
            &builder, "{is}", i,
            status(set_fans, i, temperature(0) > cooling_above, "Running").c_str());
    }
    return g_variant_new("(a{is})", &builder);
}

void set_text(std::map<int, std::string> &values, GVariant *arguments) {
    int number = 0;
    const gchar *text = nullptr;
    g_variant_get(arguments, "(i&s)", &number, &text);
    values[number] = text;
}

bool set(const std::string &method, GVariant *arguments) {
    if (method == "SetCounts") {
        g_variant_get(arguments, "(iii)", &sensor_count, &heater_count, &fan_count);
    } else if (method == "SetTemperature") {
        int sensor = 0;
        double celsius = 0;
        g_variant_get(arguments, "(id)", &sensor, &celsius);
        set_temperatures[sensor] = celsius;
    } else if (method == "SetHeater") {
        set_text(set_heaters, arguments);
    } else if (method == "SetFan") {
        set_text(set_fans, arguments);
    } else if (method == "SetReply") {
        const gchar *kind = nullptr;
        g_variant_get(arguments, "(&s)", &kind);
        reply_kind = kind;
    } else {
        return false;
    }
    return true;
}

GVariant *told(const std::string &method, GVariant *arguments) {
    if (method == "GetNbrOfTemperatureSensors") {
        return g_variant_new("(i)", sensor_count);
    }
    if (method == "GetNbrOfHeaters") {
        return g_variant_new("(i)", heater_count);
    }
    if (method == "GetNbrOfFans") {
        return g_variant_new("(i)", fan_count);
    }
    if (method == "GetAllTemperatures") {
        return all_temperatures();
    }
    if (method == "GetAllFanStatus") {
        return all_fans();
    }
    int heater = 0;
    g_variant_get(arguments, "(i)", &heater);
    return g_variant_new(
        "(s)", status(set_heaters, heater, temperature(0) < heating_below, "Running").c_str());
}

void call(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation) {
    if (set(method, arguments)) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else {
        answer_as(reply_kind, invocation, told(method, arguments));
    }
}

} // namespace

const bus_service temperature_service = {
    "com.tarvo.TemperatureController",
    "/com/tarvo/TemperatureController",
    R"xml(<node>
  <interface name="com.tarvo.TemperatureController">
    <method name="GetNbrOfTemperatureSensors"><arg name="count" type="i" direction="out"/></method>
    <method name="GetNbrOfHeaters"><arg name="count" type="i" direction="out"/></method>
    <method name="GetNbrOfFans"><arg name="count" type="i" direction="out"/></method>
    <method name="GetAllTemperatures">
      <arg name="unit" type="s" direction="in"/>
      <arg name="temperatures" type="a{id}" direction="out"/>
    </method>
    <method name="GetHeaterStatus">
      <arg name="heater" type="i" direction="in"/>
      <arg name="status" type="s" direction="out"/>
    </method>
    <method name="GetAllFanStatus"><arg name="fans" type="a{is}" direction="out"/></method>
  </interface>
  <interface name="com.tarvo.Simulator.TemperatureController">
    <method name="SetCounts">
      <arg name="sensors" type="i" direction="in"/>
      <arg name="heaters" type="i" direction="in"/>
      <arg name="fans" type="i" direction="in"/>
    </method>
    <method name="SetTemperature">
      <arg name="sensor" type="i" direction="in"/>
      <arg name="celsius" type="d" direction="in"/>
    </method>
    <method name="SetHeater">
      <arg name="heater" type="i" direction="in"/>
      <arg name="status" type="s" direction="in"/>
    </method>
    <method name="SetFan">
      <arg name="fan" type="i" direction="in"/>
      <arg name="status" type="s" direction="in"/>
    </method>
    <method name="SetReply"><arg name="kind" type="s" direction="in"/></method>
  </interface>
</node>)xml",
    call,
};
