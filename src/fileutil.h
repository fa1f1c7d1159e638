// Files and folders: questions, whole-file reading and writing, removal of trees, lines.
#pragma once

#include "handle.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Storages are foreign: others write to a card or a share, and a link, a pipe or a device there
// must neither lead the daemon to a file of the camera nor hold it. This is the one way to open
// what lies on one, for reading and for writing: a regular file, without waiting, without following
// a link in any part of the path below the storage's folder ("/var/spool/storage/NAME/", the
// package's "localdata/"), closed in children. Of other paths the folders are trusted, and what is
// written is no link. `flags` and `permissions` are open's. -1 with errno; nothing is logged.
unique_fd file_descriptor(const char *path, int flags, unsigned permissions = 0666);

// A new file for writing, in the place of whatever had the name.
unique_fd new_file_descriptor(const char *path, unsigned permissions = 0666);

// Such a file with these contents, on the storage when it returns. False with errno.
bool file_write_new(const char *path, std::string_view bytes);

// A folder, reached in the same way.
unique_fd folder_descriptor(const char *path);

// Removes links, pipes, sockets and devices from a tree, so that a tool that follows and opens
// everything stays inside; and temporaries (".tmp...") that are older than `age_min` seconds.
void sweep_tree(const char *path, long age_min);

// Links are followed. Nothing is logged.
bool is_directory(const char *path);
bool is_file(const char *path); // a regular file
bool is_readable(const char *path);
bool is_writable(const char *path);
bool is_executable(const char *path);

// Whether a command may append to the path: it is a regular file, or missing, with no link in any
// part of the path below a storage. False after a warning with the path.
bool can_append_or_warn(const char *path);

// Bytes, or -1 after an error line.
long long filesize(const char *path);

// "1024 B", "1 KiB" ... "TiB" into `buffer`: divided by 1,024, remainder dropped, while above
// 1,024. A buffer too small for the result ends the process; 24 bytes hold any.
void suffix_bytes(char *buffer, std::size_t size, long long bytes);
void filesize_human_readable(char *buffer, std::size_t size, const char *path);

// Cuts the file to nothing (and makes it if it is missing), on storage when it returns; false if it
// can't be written.
bool empty_file_if_possible(const char *path);

// Copies contents, target with default permissions; an existing target is an error. Logged at
// warning level.
bool file_copy(const char *from, const char *to);

// Copies a regular file of at most `size_max` bytes so that the target is at any time the old one
// or the new one, whole; its temporary is ".tmp_NAME" beside it. Links are not followed, nor is
// anything opened that could block. False, logged at warning level, when it did not work.
inline constexpr long long file_copy_size_max = 1LL << 30;
bool file_copy_whole(const char *from, const char *to, long long size_max = file_copy_size_max);

// Makes a folder unless it is there; false, with errno, when it could not be made, or only a link
// on a storage has the name.
bool make_folder(const char *path, unsigned permissions);

// What a device or the kernel calls something as the name of one visible file, at most 90 bytes:
// "a/b" -> "a_b", ".." -> "_."
std::string file_name_of(std::string_view name);

// The names of the folders in a folder (links are none), at most 100, in the order of the folder;
// `are_all` is cleared when there are more.
std::vector<std::string> get_subdirectories(const char *path, bool *are_all = nullptr);

// The whole file, or nothing after a warning. For small files.
std::optional<std::string> file_get_contents(const char *path);

// Replaces the file's contents so that after a power cut it holds the old or the new ones, whole.
// False after a warning.
bool file_put_string(const char *path, std::string_view text);

// The same, but a file that can't be opened for writing at all gives log_cannot_open's warning.
bool file_replace(const char *path, std::string_view text);

// False, without a message and with errno cleared, when it did not work.
bool file_remove(const char *path);
bool file_rename(const char *from, const char *to);

// Removes a folder with all that is in it and returns the number of removed entries, the folder
// included. A link is removed, never followed; below 128 levels nothing is removed (and so the
// folders above stay).
int dir_remove_recursive(const char *path);

// fopen with mode "r", "w" or "a" of what file_descriptor opens. Nothing is logged; errno tells.
unique_file file_open(const char *path, const char *mode);
// The same, and a warning with the path when it fails.
unique_file file_open_or_warn(const char *path, const char *mode);

// The next line as fgets reads it: at most max_characters, the newline included; a longer line
// comes in pieces. False at the end of the file. A NUL byte ends the text as it does for fgets.
bool read_line(std::FILE *file, std::size_t max_characters, std::string &line);
