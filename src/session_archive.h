// A session's zip archive: made in the background, downloaded, removed with the session. The
// archive is the session's directory plus ".zip". Main loop only.
#pragma once

#include "http.h"

#include <string>

void action_zip_monitor_data(GDataOutputStream *stream, GHashTable *arguments);
void action_get_monitor_data(GDataOutputStream *stream, GHashTable *arguments);
void action_remove(GDataOutputStream *stream, GHashTable *arguments);

// Starts zipping in the background; 0, and nothing is done, when the session is being zipped
// already, else 1.
int zip_session(const std::string &session_directory);

// Whether a zip process works on the session.
bool is_zipping_session(const std::string &session_directory);

// Starts the zip command for a session directory. The daemon's working directory is then the
// session's parent.
void zip_session_directory(const char *path);

// Removes the unfinished archives beside the sessions of a storage's root that a power cut or the
// loss of the storage has left; nothing while a session is being zipped.
void sweep_zip_leftovers(const std::string &root);

std::string session_archive_path(const std::string &session_directory);
