#include "eventlistener.h"

#include "fileutil.h"
#include "line_parser.h"
#include "log.h"
#include "session_globals.h"
#include "strutil.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>

namespace {

constexpr const char *tool = "/usr/bin/eventlistener";
constexpr std::string_view separator = "-----------------------------------";
constexpr std::size_t topic_max = 47;
constexpr std::size_t timestamp_max = 31;
constexpr std::size_t text_max = 127;
constexpr std::size_t tree_max = 511;

// The tool's line reader owns the event and the copy while it runs; they change only while it does
// not.
std::unique_ptr<thread_info> thread;
eventlistener_Event global_event_buffer;
unique_fd eventlistener_log;
bool was_tried = false;               // tried to be, since the last stop
std::atomic<bool> copy_failed{false}; // set by the reader when a line did not reach the session

// " [port = '1'] {onvif-source}"
std::string text_in_brackets(std::string_view line) {
    const auto open = line.find('[');
    const auto close = open == std::string_view::npos ? open : line.find(']', open);
    return close == std::string_view::npos
               ? ""
               : std::string(line.substr(open + 1, std::min(close - open - 1, text_max)));
}

std::string_view next_word(std::string_view &text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

// Takes the topic's name after its key; false, logged, when it can't be parsed.
bool take_topic(eventlistener_Event &event, const char *name_space, std::string_view number,
                std::string_view &rest) {
    if (number.empty() || number.front() < '0' || number.front() > '9') {
        log_warning("Topic number is not a digit, skipping.");
        return false;
    }
    std::string_view word = next_word(rest);
    while (!word.empty() && word != "=") {
        word = next_word(rest);
    }
    if (word.empty()) {
        return true; // a key without a value
    }
    const std::string_view quoted = next_word(rest);
    const std::string_view behind = quoted.substr(quoted.empty() ? 0 : 1);
    const auto end = behind.find('\'');
    if (end == std::string_view::npos) {
        log_warning("Could not find ending apostrophe for topic name, skipping.");
        return false;
    }
    std::string topic = std::string(name_space) + ":" + std::string(behind.substr(0, end));
    topic.resize(std::min(topic.size(), topic_max));
    const int level = number.front() - '0';
    std::string &place = event.topics[static_cast<std::size_t>(level)];
    if (!place.empty()) {
        log_warning("Duplicate topics with index %d, skipping. Found '%s', already got '%s'", level,
                    topic.c_str(), place.c_str());
        return false;
    }
    place = std::move(topic);
    return true;
}

void append_to_copy(const char *line) {
    const std::string text = std::string(line) + "\n";
    const ssize_t count =
        TEMP_FAILURE_RETRY(::write(eventlistener_log.get(), text.data(), text.size()));
    if (count != static_cast<ssize_t>(text.size())) {
        if (!copy_failed.exchange(true)) {
            log_warning("Could not write to eventlistener.txt: %s",
                        std::strerror(count < 0 ? errno : ENOSPC));
        }
        errno = 0;
    } else {
        copy_failed = false;
    }
}

void parse_eventlistener_line(const char *line) {
    const log_reaction what_is_said; // events of our own rules come here, too
    append_to_copy(line);
    if (eventlistener_take_line(global_event_buffer, line)) {
        log_event(global_event_buffer);
        global_event_buffer = {};
    }
}

} // namespace

bool eventlistener_start(const std::string &session_directory) {
    was_tried = true;
    errno = 0;
    if (!is_executable(tool)) {
        errno = 0;
        log_info("Could not start eventlistener: Eventlistener application not found.");
        return false;
    }
    if (thread) {
        log_error("Could not start eventlistener: Thread is already running.");
        return false;
    }
    const std::string folder = session_directory + "/system_monitoring/monitoring_metadata";
    make_folder(folder.c_str(), 0777);
    eventlistener_log = file_descriptor((folder + "/eventlistener.txt").c_str(),
                                        O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (!eventlistener_log) {
        log_error("Could not start eventlistener: Could not create "
                  "monitoring_metadata/eventlistener.txt");
        return false;
    }
    global_event_buffer = {};
    copy_failed = false;
    const char *const arguments[] = {tool, "-r", nullptr};
    thread = process_create(arguments, parse_eventlistener_line);
    if (!thread) {
        (void)eventlistener_log.close();
        log_error("Could not start eventlistener: Couldn't start thread.");
        return false;
    }
    log_info("Started eventlistener.");
    return true;
}

void eventlistener_stop() {
    was_tried = false;
    process_stop(thread.get());
    process_wait(thread.get());
    process_free(thread);
    (void)eventlistener_log.close();
    errno = 0;
}

void eventlistener_keep_running(const std::string &session_directory) {
    const bool is_cut_off = thread && (connection_lost_count > 0 || copy_failed || thread->at_end);
    if (was_tried && !is_cut_off) {
        return;
    }
    eventlistener_stop();
    (void)eventlistener_start(session_directory);
}

bool eventlistener_take_line(eventlistener_Event &event, const char *line) {
    std::string_view rest = line;
    if (rest.find(separator) != std::string_view::npos) {
        return true;
    }
    if (rest.find(" {onvif-source}") != std::string_view::npos) {
        event.onvif_source = text_in_brackets(rest);
        return false;
    }
    if (rest.find(" {onvif-data} {property-state}") != std::string_view::npos) {
        event.onvif_data_property_state = text_in_brackets(rest);
        return false;
    }
    constexpr std::string_view own_topic = "[tnstarvo:topic";
    constexpr std::string_view onvif_topic = "[tns1:topic";
    bool good = true;
    for (std::string_view word = next_word(rest); good && !word.empty(); word = next_word(rest)) {
        if (word.starts_with("Timestamp:")) {
            event.timestamp = next_word(rest).substr(0, timestamp_max);
        } else if (word.starts_with(own_topic)) {
            good = take_topic(event, "tarvo", word.substr(own_topic.size()), rest);
        } else if (word.starts_with(onvif_topic)) {
            good = take_topic(event, "onvif", word.substr(onvif_topic.size()), rest);
        }
    }
    return false;
}

void log_event(const eventlistener_Event &event) {
    std::string tree;
    const auto add = [&tree](const std::string &part) {
        if (part.empty()) {
            return true;
        }
        const std::string_view between = tree.empty() ? "" : "/";
        if (tree.size() + between.size() + part.size() > tree_max) {
            errno = 0;
            log_error("Metadata Event topic_tree is too small. Skipping topic starting with '%s' "
                      "while adding '%s'.",
                      tree.c_str(), part.c_str());
            return false;
        }
        tree += between;
        tree += part;
        return true;
    };
    for (const std::string &topic : event.topics) {
        if (!add(topic)) {
            return;
        }
    }
    if (add(event.onvif_source) && add(event.onvif_data_property_state)) {
        log_info("Metadata Event %s %s", event.timestamp.c_str(), tree.c_str());
    }
}
