// Trace sessions: a network capture into a folder of a storage, repaired when it is stopped, packed
// by the package's scripts and offered for download. Main loop only; at most one runs at a time.
#pragma once

#include "http.h"

#include <string>

// Whether a trace session runs. Set and cleared by the actions.
extern bool pcapdump_is_active;

void action_activate_wireshark_session(GDataOutputStream *stream, GHashTable *arguments);
void action_stop_wireshark_session(GDataOutputStream *stream, GHashTable *arguments);
void action_view_wireshark_sessions(GDataOutputStream *stream, GHashTable *arguments);
void action_download_wireshark_session(GDataOutputStream *stream, GHashTable *arguments);
void action_remove_wireshark_session(GDataOutputStream *stream, GHashTable *arguments);
void action_wireshark_direct(GDataOutputStream *stream, GHashTable *arguments);

// Updates the index of trace sessions: in the background at start, else waited for.
void collect_wireshark_sessions(bool in_background);

// Ends the capture tool.
void kill_all_pcapdump();
// At start: ends the capture tool of a killed run, which would fill its storage.
void end_left_over_capture();

// Once a minute: repairs, packs and ends one trace that a restart or the loss of its storage cut
// off, while no trace runs. Searches for such at the first call and when a storage was mounted.
void mend_cut_off_traces();

// Ends the capture into the folder, waiting a bounded time for the tool, and repairs its file;
// blocks for as long as the repair takes. The raw capture is deleted only when the repaired one is
// whole on the storage and lacks nothing but an unfinished end. Always 0.
int terminate_pcapdump(const std::string &folder);
