// Help for tests in the private root, where the device's absolute paths belong to them.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Writes a file, with the folders above it; ends the test program if that fails.
void write_file(const std::string &path, std::string_view text);
std::string read_file(const std::string &path);

// An executable script, at an absolute path or, by its bare name, first in PATH.
void install_tool(const std::string &name_or_path, const std::string &script);

// A program that notes its arguments, a line a call, and prints `output`; recorded_calls reads and
// forgets the notes of all of them: "NAME ARGUMENT ARGUMENT". Forgotten may also be what a call
// notes just then: who waits for calls in the background does not forget.
void install_recorder(const std::string &name_or_path, const std::string &output = "");
std::vector<std::string> recorded_calls(bool forget = true);

// The names in a folder, sorted.
std::vector<std::string> list_folder(const std::string &path);

// An empty folder of the test's own.
std::string fresh_folder();

// Runs the default main context until the condition holds; false after a generous limit.
bool run_until(const std::function<bool()> &condition);
// The same without a main loop, for what threads and other processes bring about.
bool wait_until(const std::function<bool()> &condition);

// Of this process.
int open_descriptors();
int thread_count();
int zombie_children();
