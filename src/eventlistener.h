// Copies the output of the device's event listener into the session and condenses every platform
// event into one log line. Started and stopped on the main loop; lines come on the reader's thread.
#pragma once

#include <array>
#include <string>

// The event being assembled: fed line by line, logged and cleared at its end. Its texts are cut to
// what the device's event system has room for.
struct eventlistener_Event {
    std::array<std::string, 10> topics; // "tarvo:NAME" or "onvif:NAME", at most 47 bytes
    std::string timestamp;              // at most 31 bytes
    std::string onvif_source;           // at most 127 bytes
    std::string onvif_data_property_state;
};

// Starts the tool, which writes to system_monitoring/monitoring_metadata/eventlistener.txt of the
// session. False, logged, when it could not be started or runs already.
bool eventlistener_start(const std::string &session_directory);

// Ends the tool and waits until it has (popen2_grace says how long at most). Nothing is done when
// it does not run.
void eventlistener_stop();

// For every minute of a session: starts the tool, once, and again when it is of no more use: its
// file has gone with the storage, its last write did not reach it, or it has ended by itself.
void eventlistener_keep_running(const std::string &session_directory);

// Takes one line of the tool into the event. True when the line ended the event, which is to be
// logged and cleared.
bool eventlistener_take_line(eventlistener_Event &event, const char *line);

// "Metadata Event TIME LEVEL/LEVEL/SOURCE/STATE", or an error when that is too long.
void log_event(const eventlistener_Event &event);
