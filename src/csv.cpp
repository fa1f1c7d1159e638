#include "csv.h"

#include "dateutil.h"
#include "fileutil.h"
#include "log.h"
#include "strutil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <utility>

namespace {

// By errno, the file whose failure was logged, until it can be written again.
std::map<int, std::string> said_failures;
append_counts counts;

// Where the last whole row ends: `size`, unless the file ends in a part of a row.
off_t end_of_rows(int file, off_t size) {
    std::array<char, 4096> piece;
    for (off_t end = size; end > 0;) {
        const off_t start = std::max<off_t>(0, end - static_cast<off_t>(piece.size()));
        const ssize_t count =
            ::pread(file, piece.data(), static_cast<std::size_t>(end - start), start);
        if (count != end - start) {
            return size; // unreadable: better a merged row than a lost file
        }
        const auto rows_end = std::find(piece.rbegin() + (static_cast<off_t>(piece.size()) - count),
                                        piece.rend(), '\n');
        if (rows_end != piece.rend()) {
            return start + (piece.rend() - rows_end);
        }
        end = start;
    }
    return 0;
}

} // namespace

append_result append_whole(const std::string &path, std::string_view header, std::string_view text,
                           bool in_lines) {
    const unique_fd file = file_descriptor(path.c_str(), O_RDWR | O_CREAT | O_APPEND, 0644);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return {errno, false};
    }
    char last = '\n';
    off_t size = status.st_size;
    if (in_lines && size > 0 && ::pread(file.get(), &last, 1, size - 1) == 1 && last != '\n') {
        size = end_of_rows(file.get(), size);
        if (::ftruncate(file.get(), size) != 0) {
            size = status.st_size;
        }
    }
    std::string with_header;
    if (size == 0 && !header.empty()) {
        with_header.append(header).append(text);
        text = with_header;
    }
    const ssize_t written = TEMP_FAILURE_RETRY(::write(file.get(), text.data(), text.size()));
    if (written == static_cast<ssize_t>(text.size())) {
        return {0, true};
    }
    const int error = written < 0 ? errno : ENOSPC;
    return {::ftruncate(file.get(), size) == 0 ? error : EIO, true};
}

bool append_rows(const std::string &path, std::string_view header, std::string_view rows) {
    const append_result result = append_whole(path, header, rows, true);
    if (result.error == 0) {
        ++counts.written;
        std::erase_if(said_failures, [&path](const auto &said) { return said.second == path; });
        return true;
    }
    ++counts.failed;
    if (said_failures.emplace(result.error, path).second) {
        errno = result.error;
        if (result.opened) {
            log_warning("Could not write to '%s': %s", path.c_str(), std::strerror(errno));
        } else {
            log_cannot_open(path.c_str());
        }
    }
    errno = 0;
    return false;
}

append_counts take_append_counts() {
    return std::exchange(counts, {});
}

void forget_append_failures() {
    said_failures.clear();
}

std::string row_time() {
    return date_format_now(date_format_row);
}

std::string csv_cell(std::string_view name) {
    const bool is_formula = !name.empty() && std::strchr("=+-@", name.front()) != nullptr;
    std::string cell = (is_formula ? " " : "") + std::string(name);
    str_replace_char(cell, ',', ' ');
    return cell;
}
