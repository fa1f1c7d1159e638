// A session's files on their way to the web page. Main loop only.
#pragma once

#include "http.h"

// Writes one of the session's CSV files as {"Records" : [{"data": "LINE"},...]}, header block
// included; a file that is missing gives no records. `path` is the session, for some types with the
// file behind an "@"; process_name and pid may be nullptr. The texts have been checked: they name
// nothing outside the session.
void output_data_json_no_retention(GDataOutputStream *stream, const char *path, const char *type,
                                   const char *process_name, const char *pid);

// Writes the lines of a file but the first as records. A file that can't be opened writes nothing.
void print_file_as_json_data(GDataOutputStream *stream, const char *path);

// What a session has, one of its CSV files as records, or a part of one of its files.
void action_view_monitor_data(GDataOutputStream *stream, GHashTable *arguments);
