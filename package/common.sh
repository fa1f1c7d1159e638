#!/bin/sh
# Functions of the package's scripts, which read this file; it is not run by itself.
# shellcheck disable=SC2034 # the variables are for the scripts

LC_ALL=C
export LC_ALL
umask 022

PACKAGE=/usr/local/packages/Vandrel
LOCALDATA=$PACKAGE/localdata
STORAGES=/var/spool/storage

# warn TEXT: one line for the system log, where there is a logger.
warn() {
    logger -t Vandrel -p user.warning -- "${0##*/}: $1" 2>/dev/null || :
}

# is_plain NAME: whether it can be one part of a path, whatever command line it comes into.
is_plain() {
    case $1 in
    '' | .* | -* | *[!A-Za-z0-9._-]*) return 1 ;;
    esac
}

# is_stamp NAME: whether it has the form of a session's folder, 20230531_08_27_40.
is_stamp() {
    case $1 in
    [0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9]_[0-9][0-9]_[0-9][0-9]_[0-9][0-9]) ;;
    *) return 1 ;;
    esac
}

# is_mounted DIRECTORY: whether a file system is mounted there. An ejected storage leaves its empty
# mount point behind, and what is written into that fills the device's own memory.
is_mounted() {
    mount_point=$(readlink -f -- "$1") || return 1
    while read -r _ mounted_at _; do
        [ "$mounted_at" = "$mount_point" ] && return 0
    done </proc/mounts
    return 1
}

# flush FILE: returns when its content is on the storage.
flush() {
    sync "$1" 2>/dev/null || sync
}

# replace_file FILE: puts what it reads in the file's place, whole or not at all. It is written
# beside, under a name with this process's number. A file that has that content already is left
# alone, which spares the device's flash.
replace_file() {
    beside=${1%/*}/.${1##*/}.$$
    if cat >"$beside" 2>/dev/null; then
        if cmp -s "$beside" "$1"; then
            rm -f "$beside"
            return 0
        fi
        if flush "$beside" && mv -f "$beside" "$1"; then
            flush "${1%/*}"
            return 0
        fi
    fi
    rm -f "$beside"
    return 1
}

# sweep_beside FILE: removes what processes that ended left of their replace_file.
sweep_beside() {
    for beside in "${1%/*}/.${1##*/}".[0-9]*; do
        [ -e "$beside" ] && ! [ -d "/proc/${beside##*.}" ] && rm -f "$beside"
    done
    return 0
}
