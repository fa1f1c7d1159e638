// A service of the device on the system bus. Everything runs on the main loop.
#pragma once

#include <gio/gio.h>

// One name on the bus with one object. `call` answers the invocation, now or later, and gets
// nothing but the methods that `interfaces` describes.
struct bus_service {
    const char *name;
    const char *object_path;
    const char *interfaces; // introspection data, as D-Bus has it
    void (*call)(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation);
};

extern const bus_service ptz_coordinator_service;
extern const bus_service storage_service;
