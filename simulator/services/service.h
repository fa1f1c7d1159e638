// A service of the device on the system bus. Everything runs on the main loop.
#pragma once

#include <gio/gio.h>
#include <string>

// One name on the bus with one object. `call` answers the invocation, now or later, and gets
// nothing but the methods that `interfaces` describes.
struct bus_service {
    const char *name;
    const char *object_path;
    const char *interfaces; // introspection data, as D-Bus has it
    void (*call)(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation);
    GVariant *(*property)(const char *name) = nullptr; // where `interfaces` has some
};

extern const bus_service ptz_coordinator_service;
extern const bus_service ptz_service;
extern const bus_service storage_service;
extern const bus_service streamer_service;
extern const bus_service temperature_service;

// Answers with a body of any signature: GLib's own functions hold an answer to the one that the
// introspection data gives, which a broken service has not.
void answer(GDBusMethodInvocation *invocation, GVariant *body);

// How late a slow service answers, past every caller's time-out.
inline constexpr unsigned slow_s = 10;

// Answers as a service in some state does:
//   "real"      with `body`
//   "empty"     with nothing
//   "cut"       with one number, where a list begins
//   "nonsense"  with texts and numbers that nobody asked for
//   "enormous"  with 20,000 entries of both kinds and a text of 100,000 characters before `body`
//   "slow"      with `body`, but slow_s late
//   "error"     with an error
void answer_as(const std::string &kind, GDBusMethodInvocation *invocation, GVariant *body);
