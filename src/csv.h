// Rows of the session's files. Main loop only.
#pragma once

#include <string>
#include <string_view>

// Appends rows to a file in one write, with the header in front when there is no such file yet.
// What could not be written whole is taken back, with one warning until that file can be written
// again, and so is what a power cut left of a row. False, with a warning, when it did not work.
bool append_rows(const std::string &path, std::string_view header, std::string_view rows);

// The current time as the two first columns: "2026-11-21,04:05:06".
std::string row_time();
