#!/bin/sh
# Installs Vandrel on a camera, or upgrades it, as root:
#
#   ./install.sh [--root DIRECTORY]
#
# It stands in the archive beside "files", the tree to be installed. An upgrade keeps all settings and
# sessions, and a session that runs goes on. With --root the files go into a device's file system that
# is mounted there, and nothing is started.
#
# All is laid beside what is installed and flushed first; from one rename on the new version counts. A
# power cut before it leaves the old version; one after it leaves work that complete_install.sh does
# when the service is started next.
set -u
LC_ALL=C
export LC_ALL
umask 022

fail() {
    echo "install.sh: $1" >&2
    exit 1
}

root=
if [ "${1:-}" = --root ] && [ -d "${2:-}" ]; then
    root=${2%/}
    shift 2
fi
[ $# -eq 0 ] || fail "unknown arguments: $*"
[ "$(id -u)" -eq 0 ] || fail "only root can install"
files=$(cd "${0%/*}" && pwd)/files || fail "no folder of its own"
installed=$root/usr/local/packages/Vandrel
mkdir -p "$installed" || fail "$installed can not be made"

# A file system that is mounted somewhere is flushed by whoever unmounts it.
flush() {
    [ -n "$root" ] || sync
}
setting() { # KEY FILE
    sed -n "s/^$1=\"\([A-Za-z0-9._-]*\)\"\$/\1/p" "$2" 2>/dev/null
}
packed=$files/usr/local/packages/Vandrel/package.conf
version=$(setting VERSION "$packed")
[ -n "$version" ] || fail "this archive is incomplete"
if [ -z "$root" ]; then
    case $(uname -m) in
    x86_64) machine=amd64 ;;
    aarch64) machine=aarch64 ;;
    armv*) machine=armhf ;;
    *) machine=$(uname -m) ;;
    esac
    [ "$machine" = "$(setting ARCHITECTURE "$packed")" ] ||
        fail "this archive is for $(setting ARCHITECTURE "$packed"), this device is $machine"
fi

# Of an installation that did not get to its end.
rm -rf "$installed/.install.new"
if [ -d "$installed/.install" ]; then
    "$installed/.install/complete_install.sh" "$root" || fail "the last installation can not be completed"
fi

# Files of a newer version may be in a form that this one does not know.
before=$(setting VERSION "$installed/package.conf")
newest=$(printf '%s\n' "$before" "$version" | sort -t . -k 1,1n -k 2,2n -k 3,3n | tail -n 1)
[ -z "$before" ] || [ "$newest" = "$version" ] ||
    fail "version $before is installed, which is newer than $version; uninstall it first"

# The whole tree, what belongs to it, and what will put it into place.
stage=$installed/.install.new
if ! mkdir "$stage" || ! cp -Rp "$files" "$stage/files" ||
    ! cp -p "$files/usr/local/packages/Vandrel/complete_install.sh" "$stage/"; then
    fail "no room"
fi
if [ ! -d "$root/etc/apache2/conf.d" ]; then
    rm -rf "$stage/files/etc/apache2"
fi
(cd "$stage/files" && find . ! -type d | sed 's/^\.//' | sort) >"$stage/manifest" || fail "no room"
flush
mv "$stage" "$installed/.install" || fail "the new version can not be put beside the old one"
flush

if [ -n "$root" ]; then
    "$installed/.install/complete_install.sh" "$root" || fail "not completed"
    echo "Vandrel $version is installed in $root."
    exit 0
fi
systemctl stop Vandrel 2>/dev/null
"$installed/.install/complete_install.sh" || fail "not completed; the next start of the service does it"
systemctl daemon-reload
systemctl start Vandrel || fail "Vandrel $version is installed, but its service does not start"
systemctl reload httpd 2>/dev/null
echo "Vandrel ${before:+$before -> }$version is installed and runs."
