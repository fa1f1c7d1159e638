#!/bin/sh
# Keeps a rule of the network device test in nc_rules.txt. Called by the daemon, which waits for it:
#
#   define_nc_rule.sh ADDRESS PORT INTERVAL FAILURES NAME
#
# The record of a host that has one already is replaced in its place, another is appended. No line of
# a record but its first begins with "N", by which the daemon knows where one begins:
#
#   N:192.168.0.1
#   P:80                 -1 for ICMP
#   T:6                  interval, in units of 10 s
#   F:3                  failures
#   L:the entrance's switch

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ $# -eq 5 ] || exit 1
keep_nc_rules "$1" "$2" "$(printf 'N:%s\nP:%s\nT:%s\nF:%s\nL:%s' "$@")"
