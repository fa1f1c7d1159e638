#!/bin/sh
# Packs what a running trace session has so far into its wireshark_archive.zip. Called by the daemon,
# which waits for it, before that is downloaded:
#
#   update_wireshark_session.sh FOLDER

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ -f "$1/wireshark_signature.txt" ] && pack_trace "$1"
