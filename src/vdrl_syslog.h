// Which program keeps the device's system log.
#pragma once

inline constexpr int syslog_variant_unknown = 0; // before the first look
inline constexpr int syslog_variant_none = 1;
inline constexpr int syslog_variant_rsyslog = 2;
inline constexpr int syslog_variant_syslog_ng = 3;

// One of the three above, by the configuration folders that the device has; rsyslog where it has
// both. Looked for once; "none" is logged then. Main loop only.
int vdrl_syslog_get_variant();
