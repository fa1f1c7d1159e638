#!/bin/sh
# Takes a rule of the network device test out of nc_rules.txt, whose form define_nc_rule.sh tells.
# Called by the daemon, which waits for it:
#
#   remove_nc_rule.sh ADDRESS PORT

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ $# -eq 2 ] || exit 1
keep_nc_rules "$1" "$2" ''
