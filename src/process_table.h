// What the processes of the camera use, by name. Main loop only.
#pragma once

#include <cstdint>
#include <map>
#include <string>

// All processes of one name together.
struct process_use {
    unsigned processes = 0;
    std::uint64_t threads = 0;
    std::uint64_t resident_bytes = 0;
};

// By process_folder_name; without kernel threads. Read from /proc at most once a minute, as each
// process costs a file; in between the last answer.
const std::map<std::string, process_use> &process_table();

// The name of a process as a folder's: "(sd-pam)" -> "_sd-pam_"
std::string process_folder_name(std::string name);
