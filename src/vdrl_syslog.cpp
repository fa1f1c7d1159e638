#include "vdrl_syslog.h"

#include "fileutil.h"
#include "log.h"

syslog_variant vdrl_syslog_get_variant() {
    static syslog_variant variant = syslog_variant_unknown;
    if (variant != syslog_variant_unknown) {
        return variant;
    }
    if (is_directory("/etc/rsyslog.d")) {
        variant = syslog_variant_rsyslog;
    } else if (is_directory("/etc/syslog-ng.d")) {
        variant = syslog_variant_syslog_ng;
    } else {
        log_error("No continuous syslog program found on this device.");
        variant = syslog_variant_none;
    }
    return variant;
}
