// Rows of the session's files. Main loop only, unless said otherwise.
#pragma once

#include <string>
#include <string_view>

// Appends rows to a file in one write, with the header in front when there is no such file yet.
// What could not be written whole is taken back, with one warning until that file can be written
// again, and so is what a power cut left of a row. False, with a warning, when it did not work.
bool append_rows(const std::string &path, std::string_view header, std::string_view rows);

// What came of an append: 0, or what errno was, and whether the file could be opened at all.
struct append_result {
    int error = 0;
    bool opened = false;
};

// Appends text to a file in one write, behind the header when there is no such file yet. What could
// not be written whole is taken back; where the file consists of lines, so is a part of one at its
// end. Nothing is logged. Any thread.
append_result append_whole(const std::string &path, std::string_view header, std::string_view text,
                           bool in_lines);

// The current time as the two first columns: "2026-11-21,04:05:06".
std::string row_time();

// A name that somebody chose as one cell of a row, which no spreadsheet takes for a formula: a comma
// becomes a blank, and a blank is put before a leading "=", "+", "-" or "@". "=1,5" -> " =1 5"
std::string csv_cell(std::string_view name);
