// The device's process list, as its `ps` prints it. Main loop only.
#pragma once

#include <string>

// Whether a line of the process list that holds the pattern (as grep reads it) also holds the
// needle. Both are the daemon's own words or have been checked to be such. True also when the
// process list can't be had: who asks means not to do something twice, or too early.
bool ps_grep_and_check_if_included(const std::string &pattern, const std::string &needle);

// As long as one lives, the process list is asked for once for each pattern: for duties that ask
// the same in the same second, each of something that none of the others starts.
class process_list_memory {
  public:
    process_list_memory();
    ~process_list_memory();
    process_list_memory(const process_list_memory &) = delete;
    process_list_memory &operator=(const process_list_memory &) = delete;
};
