#include "csv.h"

#include "dateutil.h"
#include "fileutil.h"
#include "log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// The file whose rows could not be written, until they can be again: a full storage is one warning,
// not one for each of its files and minutes.
std::string failing_path;

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
    errno = result.error;
    if (!result.opened) {
        log_cannot_open(path.c_str());
    } else if (result.error == 0) {
        if (path == failing_path) {
            failing_path.clear();
        }
    } else if (failing_path.empty()) {
        failing_path = path;
        log_warning("Could not write to '%s': %s", path.c_str(), std::strerror(result.error));
    }
    errno = 0;
    return result.error == 0;
}

std::string row_time() {
    return date_format_now(date_format_row);
}
