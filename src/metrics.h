// The device's state for a monitoring system that asks every few seconds, as OpenMetrics text. Main
// loop only.
#pragma once

#include <gio/gio.h>
#include <string>

// The action. Costs a few reads of /proc: no command is run and no service asked. What the kernel
// does not tell is the last collection's, unless that is too old to be said of now.
void action_metrics(GDataOutputStream *stream, GHashTable *arguments);

// The text itself.
std::string metrics_text();
