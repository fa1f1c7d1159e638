// Checks: commands that run beside the main loop, a few at a time. Their results are counted in the
// order in which the checks were asked for. Main loop only.
#pragma once

#include <functional>
#include <string>
#include <string_view>

struct check_result {
    std::string command;
    std::string output; // its start, at most check_output_max bytes
    int wait_status = 0;
    bool is_first = false; // of results that are counted one after the other
};
inline constexpr std::size_t check_output_max = 4096;

struct check_command {
    std::string text;
    // Whether the output tells the result already; null to wait for its end.
    bool (*is_enough)(std::string_view output) = nullptr;
    std::function<void(const check_result &)> count;
};

// Puts a check at the end of the queue; `begin` is called when it can run. The owner is whoever can
// be forgotten.
void check_queue_add(const void *owner, std::function<check_command()> begin);

// Starts what can run and kills what has run for two minutes. Called every ten seconds.
void check_queue_run();

// No check of the owner begins or is counted any more.
void check_queue_forget(const void *owner);
