// Rows of the session's files. Main loop only, unless said otherwise.
#pragma once

#include <string>
#include <string_view>

// Appends rows to a file in one write, with the header in front when there is no such file yet.
// What could not be written whole is taken back, and so is what a power cut left of a row. False
// when it did not work: with one warning for each errno until that file can be written again, as a
// full storage would give one for each of its files and minutes.
bool append_rows(const std::string &path, std::string_view header, std::string_view rows);

// How many calls of append_rows wrote and how many failed since the last call of this.
struct append_counts {
    unsigned written = 0;
    unsigned failed = 0;
};
append_counts take_append_counts();

// What fails from now on is said again.
void forget_append_failures();

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

// A name that somebody chose as one cell of a row, which no spreadsheet takes for a formula: a
// comma becomes a blank, and a blank is put before a leading "=", "+", "-" or "@". "=1,5" -> " =1
// 5"
std::string csv_cell(std::string_view name);
