#include "schedule.h"

#include "fileutil.h"

void run_due(std::span<const duty> duties, unsigned long tick,
             const std::string &session_directory) {
    for (const duty &entry : duties) {
        if (tick % entry.every == 0 && is_directory(session_directory.c_str())) {
            entry.run(session_directory);
        }
    }
}
