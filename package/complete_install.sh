#!/bin/sh
# Puts what install.sh laid beside the installed version into its place. Called by it and, with
# nothing to do unless a power cut came in between, before each start of the daemon:
#
#   complete_install.sh [ROOT]
#
# ROOT is a device's file system, else the running one. Each step can be repeated: what is missing in
# the stage is in its place already.
set -u
root=${1:-}
installed=$root/usr/local/packages/Vandrel
stage=$installed/.install
[ -d "$stage" ] || exit 0
umask 022

fail() {
    logger -t Vandrel -p user.err -- "complete_install.sh: $1" 2>/dev/null
    echo "complete_install.sh: $1" >&2
    exit 1
}

flush() {
    [ -n "$root" ] || sync
}

# Other file systems than the package's get a copy, under a name that no service reads, renamed.
put() { # PATH
    folder=$root${1%/*}
    mkdir -p "$folder" || return 1
    case $1 in
    /usr/local/packages/Vandrel/*) mv -f "$stage/files$1" "$root$1" ;;
    *)
        beside=$folder/.${1##*/}.vandrel_new
        rm -f "$beside"
        cp -Pp "$stage/files$1" "$beside" && flush && mv -f "$beside" "$root$1" &&
            rm -f "$stage/files$1"
        ;;
    esac
}

if [ -f "$stage/manifest" ]; then
    while read -r path; do
        if [ -e "$stage/files$path" ] || [ -h "$stage/files$path" ]; then
            put "$path" || fail "$path can not be put into place"
        fi
    done <"$stage/manifest"
    # What the version before had and this one has not.
    if [ -f "$installed/.installed" ]; then
        grep -vxFf "$stage/manifest" "$installed/.installed" | while read -r path; do
            rm -f "$root$path"
            rmdir -p "$root${path%/*}" 2>/dev/null
        done
    fi
    flush
    mv -f "$stage/manifest" "$installed/.installed" || fail "the list of its files can not be kept"
fi
rm -rf "$stage"
