// The network device test: a list of hosts that are checked by ICMP or TCP at multiples of ten
// seconds, with an event, a log line and counters for each result. Main loop only; the commands of
// checks run beside it.
#pragma once

#include "event.h"

#include <cstdint>
#include <gio/gio.h>
#include <memory>
#include <optional>
#include <string>

inline constexpr int nc_port_icmp = -1;

// One rule. Made by a request or at start from the rule file; its counters live as long as it does.
struct nc_rules_s {
    nfd_event_ids events;
    std::string nc_address; // at most nc_address_max bytes
    int port = nc_port_icmp;
    std::uint64_t timer = 0;                  // interval in runs; 0 is never
    int nbr_of_fails = 0;                     // failures in a row after which "nc" is believed
    bool connected = false;                   // the last check's result
    int fail_count = 0;                       // failures in a row
    std::uint64_t fails_total = 0;            // since the rule was made, as the next
    std::uint64_t checks_total = 0;           //
    std::optional<std::string> nc_start_time; // of the first check, as text
    std::string nc_name;
    std::string log_file_path = "None"; // on a storage, the last that got a line
    bool being_checked = false;         // from a run that finds it due until the result is counted
    std::unique_ptr<nc_rules_s> next;
};
using nc_rules_t = nc_rules_s;

// The list that the daemon works with; null when there are no rules. Written at start, by the two
// actions below and by the clean-up.
extern std::unique_ptr<nc_rules_t> nc_rules;

// What a line of the rule file and the host's text in messages have room for, in bytes.
inline constexpr std::size_t nc_address_max = 46;
inline constexpr std::size_t nc_name_max = 47;

// Whether a rule can be made: the address is a host's and harmless in a command line, the port is
// valid or nc_port_icmp, and messages have room for both.
bool vdrl_dt_is_host(const std::string &address, int port);

// The rules of the rule file, in its order, with their events declared; null without any. A record
// that can't be used is left out with a warning.
std::unique_ptr<nc_rules_t> vdrl_dt_rules_read_from_file();

// Keeps the rule in the file and puts it at the head of the list, or changes interval, threshold
// and name of the rule of that host. The first rule empties the log files on the storages.
void vdrl_dt_rule_add(std::unique_ptr<nc_rules_t> &rules, const std::string &serial,
                      const std::string &address, int port, std::uint64_t timer, int nbr_of_fails,
                      const std::string &name);

// False, with nothing run, when there is no such rule. The last rule empties the log files.
bool vdrl_dt_rule_remove(std::unique_ptr<nc_rules_t> &rules, const std::string &serial,
                         const std::string &address, int port);

// Takes the events back too; the file stays.
void vdrl_dt_rules_free(std::unique_ptr<nc_rules_t> &rules);

// The whole reply of list_nc_rules.
void vdrl_dt_rules_print(const nc_rules_t *rules, GDataOutputStream *stream);

// One run: starts the checks of the rules that are due and have none pending. The main loop counts
// the results in list order, after those of earlier runs; those of rules removed meanwhile are
// dropped.
void vdrl_dt_run(nc_rules_t *rules, const std::string &serial);

void action_declare_nc_rule(GDataOutputStream *stream, GHashTable *arguments);
void action_remove_nc_rule(GDataOutputStream *stream, GHashTable *arguments);
void action_list_nc_rules(GDataOutputStream *stream, GHashTable *arguments);
void action_download_nc_log(GDataOutputStream *stream, GHashTable *arguments);
