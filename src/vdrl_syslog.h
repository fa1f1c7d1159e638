// Which program keeps the device's system log.
#pragma once

#include "app_state.h"

// Never "unknown": by the configuration folders that the device has; rsyslog where it has
// both. Looked for once; "none" is logged then. Main loop only.
syslog_variant vdrl_syslog_get_variant();
