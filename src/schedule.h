// What is due towards a running session, as tables. Main loop only.
#pragma once

#include <span>
#include <string>

// Due when the tick's number is a multiple of `every`.
struct duty {
    unsigned long every;
    const char *name;
    void (*run)(const std::string &session_directory);
};

// Runs what is due in the table's order, until the session's directory has gone: the storage can
// go between two duties, and what remains is left to the next tick.
void run_due(std::span<const duty> duties, unsigned long tick,
             const std::string &session_directory);
