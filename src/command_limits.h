// How long a command may take, and which tools are left alone for a while after one has hung.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

// What the table says of commands that begin so.
struct command_limit {
    std::string_view begin; // of the command
    std::chrono::seconds limit;
    // A tick asks such tools again and again: one that took so long, though it ended by itself, is
    // left out for command_pause; 0 for those that somebody waits for, which are always run.
    std::chrono::seconds hung_after;
    std::string_view reason;
};

// The row with the longest beginning that fits; commands that none knows have the limit of a
// script. What the command says of its own time-out ("--reply-timeout=1000") is reckoned with. A
// limit of 0 is none.
command_limit limit_of(std::string_view command);

// Some ticks: a dozen calls of one dead service cost one time-out.
inline constexpr std::chrono::seconds command_pause{150};

// Whether the command's tool has hung a moment ago. Any thread.
bool is_left_out(const std::string &command);

// How many commands were ended at their limit since the start. Any thread.
unsigned long commands_ended_at_limit();

// Notes how long a command took that was waited for; says so when its tool is left out from now on.
void note_duration(const std::string &command, std::chrono::milliseconds took, bool was_ended);
