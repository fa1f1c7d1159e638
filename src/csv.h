// Rows of the session's files. Main loop only, unless said otherwise.
#pragma once

#include <string>
#include <string_view>

// Appends rows to a file in one write, with the header in front of a new file. A partial write is
// truncated away, and so is a partial row that a power cut left. False on failure, with one warning
// per errno until that file can be written again: a full storage fails for each file, each minute.
bool append_rows(const std::string &path, std::string_view header, std::string_view rows);

// How many calls of append_rows wrote and how many failed since the last call of this.
struct append_counts {
    unsigned written = 0;
    unsigned failed = 0;
};
append_counts take_append_counts();

// Failures are logged again from now on.
void forget_append_failures();

// The result of an append: 0 or errno, and whether the file could be opened.
struct append_result {
    int error = 0;
    bool opened = false;
};

// Appends text to a file in one write, with the header in front of a new file. A partial write is
// truncated away; with `in_lines` so is an unfinished last line. Nothing is logged. Any thread.
append_result append_whole(const std::string &path, std::string_view header, std::string_view text,
                           bool in_lines);

// The current time as the two first columns: "2026-11-21,04:05:06".
std::string row_time();

// A user's text as one cell that no spreadsheet takes for a formula: commas become blanks, and a
// leading "=", "+", "-" or "@" gets a blank in front. "=1,5" -> " =1 5"
std::string csv_cell(std::string_view name);
