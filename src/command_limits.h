// How long a command may take, and which tools are skipped for a while after they have hung.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

// A row of the table of limits.
struct command_limit {
    std::string_view begin; // prefix of the command
    std::chrono::seconds limit;
    // For tools that ticks call: one that took this long is skipped for command_pause, even if it
    // ended by itself. 0: never skipped, as a request waits for it.
    std::chrono::seconds hung_after;
    std::string_view reason;
};

// The row with the longest matching prefix; other commands have the limit of a script. A time-out
// in the command itself ("--reply-timeout=1000", in ms) is added. A limit of 0 is none.
command_limit limit_of(std::string_view command);

// Two ticks and a half: the dozen calls of one dead service cost one time-out.
inline constexpr std::chrono::seconds command_pause{150};

// Whether the command is to be skipped, because its tool has hung within command_pause. Any thread.
bool is_left_out(const std::string &command);

// How many commands were ended at their limit since the start. Any thread.
unsigned long commands_ended_at_limit();

// Takes the duration of a command that was waited for; logs it when its tool is skipped from now
// on.
void note_duration(const std::string &command, std::chrono::milliseconds took, bool was_ended);
