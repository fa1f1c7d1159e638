#include "log_capture.h"

#include "log.h"

#include <regex>

namespace {

const char *const level_names[] = {"EMERG",   "ALERT",  "CRIT", "ERR",
                                   "WARNING", "NOTICE", "INFO", "DEBUG"};

} // namespace

log_capture::log_capture() {
    log_set_sink([this](int level, const std::string &message) {
        const std::lock_guard lock(mutex_);
        lines_.push_back({level, message});
    });
}

log_capture::~log_capture() {
    log_set_sink(nullptr);
}

std::vector<logged_line> log_capture::lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::string> log_capture::texts() const {
    static const std::regex line_number("^\\(([a-z0-9_]+):[0-9]+, ");
    std::vector<std::string> texts;
    for (const logged_line &line : lines()) {
        texts.push_back(std::string(level_names[line.level]) + " " +
                        std::regex_replace(line.message, line_number, "($1:#, "));
    }
    return texts;
}

void log_capture::clear() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
}
