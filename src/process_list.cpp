#include "process_list.h"

#include "strutil.h"
#include "sysutil.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {

constexpr std::size_t ps_command_size = 256;
constexpr std::size_t ps_line_max = 255;

struct process_list {
    std::vector<std::string> lines;
    bool has_hung = false;
};
bool remembers_process_lists = false;
std::map<std::string, process_list> process_lists; // by the commands

process_list read_process_list(const std::string &command) {
    process_list list;
    command_pipe pipe(command.c_str());
    std::string line;
    while (pipe.next_line(ps_line_max, line)) {
        list.lines.push_back(line);
    }
    list.has_hung = pipe.has_hung();
    return list;
}

bool includes(const process_list &list, const std::string &needle) {
    return list.has_hung ||
           std::any_of(list.lines.begin(), list.lines.end(), [&](const std::string &line) {
               return line.find(needle) != std::string::npos;
           });
}

} // namespace

bool ps_grep_and_check_if_included(const std::string &pattern, const std::string &needle) {
    const std::string command =
        format_bounded(ps_command_size, "ps | grep \"%s\"", pattern.c_str());
    if (!remembers_process_lists) {
        return includes(read_process_list(command), needle);
    }
    const auto known = process_lists.find(command);
    return includes(known != process_lists.end()
                        ? known->second
                        : process_lists.emplace(command, read_process_list(command)).first->second,
                    needle);
}

process_list_memory::process_list_memory() {
    remembers_process_lists = true;
}
process_list_memory::~process_list_memory() {
    remembers_process_lists = false;
    process_lists.clear();
}
