#include "sandbox.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char *tool_folder = "/test/bin/";
constexpr const char *call_notes = "/test/calls";
constexpr auto generous_limit = 60s;

std::string tool_path(const std::string &name_or_path) {
    return name_or_path.front() == '/' ? name_or_path : tool_folder + name_or_path;
}

std::string status_of(const fs::path &process) {
    std::ifstream file(process / "stat");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

int count_entries(const char *folder) {
    return static_cast<int>(list_folder(folder).size());
}

} // namespace

void write_file(const std::string &path, std::string_view text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        std::fprintf(stderr, "can not write %s\n", path.c_str());
        std::abort();
    }
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void install_tool(const std::string &name_or_path, const std::string &script) {
    const std::string path = tool_path(name_or_path);
    write_file(path, "#!/bin/sh\n" + script);
    fs::permissions(path, static_cast<fs::perms>(0755));
}

void install_recorder(const std::string &name_or_path, const std::string &output) {
    const std::string path = tool_path(name_or_path);
    write_file(path + ".output", output);
    install_tool(path, "echo \"${0##*/}${*:+ $*}\" >> " + std::string(call_notes) + "\ncat " +
                           path + ".output || :\n"); // the daemon may give it nothing to print to
}

std::vector<std::string> recorded_calls(bool forget) {
    std::vector<std::string> calls;
    std::ifstream file(call_notes);
    for (std::string line; std::getline(file, line);) {
        calls.push_back(line);
    }
    if (forget) {
        fs::remove(call_notes);
    }
    return calls;
}

std::vector<std::string> list_folder(const std::string &path) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(path)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string fresh_folder() {
    std::string name = "/tmp/test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        std::abort();
    }
    return name;
}

bool run_until(const std::function<bool()> &condition) {
    // The ticking source only wakes the loop, so that a condition outside of it is seen too.
    const guint ticks = g_timeout_add(
        10, [](gpointer) -> gboolean { return TRUE; }, nullptr);
    const auto limit = std::chrono::steady_clock::now() + generous_limit;
    bool holds = condition();
    while (!holds && std::chrono::steady_clock::now() < limit) {
        g_main_context_iteration(nullptr, TRUE);
        holds = condition();
    }
    g_source_remove(ticks);
    return holds;
}

bool wait_until(const std::function<bool()> &condition) {
    const auto limit = std::chrono::steady_clock::now() + generous_limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

int open_descriptors() {
    return count_entries("/proc/self/fd");
}
int thread_count() {
    return count_entries("/proc/self/task");
}

int zombie_children() {
    int zombies = 0;
    const std::string parent = " " + std::to_string(::getpid()) + " ";
    for (const auto &entry : fs::directory_iterator("/proc")) {
        // "123 (name) Z 1 ...": state and parent follow the name
        const std::string status = status_of(entry.path());
        const auto name_end = status.rfind(')');
        if (name_end != std::string::npos && status.compare(name_end, 3, ") Z") == 0 &&
            status.compare(name_end + 3, parent.size(), parent) == 0) {
            ++zombies;
        }
    }
    return zombies;
}
