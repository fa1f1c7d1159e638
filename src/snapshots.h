// Snapshots of a session that are taken now and then rather than collected as rows. Main loop only.
#pragma once

#include <glib.h>
#include <string>

// A one-shot callback: copies the kernel's interrupt counters into the running session. Returns
// FALSE.
gboolean create_interrupts_snapshot(gpointer) noexcept;

// One copy now and one three seconds later, so that rates can be derived.
void create_two_interrupts_snapshots();

// One row for each network device test rule.
void create_nc_snapshot(const std::string &session_directory);

// Has a server report written into the session, behind those that are being made (report_queue); on
// the internal storage only an archive of the reports is kept.
void create_serverreport_snapshot(const std::string &session_directory);
