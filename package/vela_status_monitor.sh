#!/bin/sh
# Records the state of the installed packages. Called by the daemon every second minute of a
# session, in the background:
#
#   vela_status_monitor.sh DIRECTORY
#
# with the session's folder system_monitoring/monitoring_vela. It appends a row to PACKAGE.csv in it
# for each folder of /usr/local/packages: the version, of its package.conf (VERSION=...) or its
# manifest.json ("version": "..."), empty without one; whether it runs, with the number of processes
# whose program or script lies in its folder; and how many kB it occupies, what it recorded in
# localdata apart. Without the directory it does nothing.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ -d "$1" ] || exit 0
mend_after_boot "$1"

packages=${PACKAGE%/*}

# What lies in the packages' folders, but not in localdata, as arguments.
set -- "$1"
for folder in "$packages"/*; do
    is_plain "${folder##*/}" || continue
    for entry in "$folder"/*; do
        [ "${entry##*/}" = localdata ] || set -- "$@" "$entry"
    done
done
directory=$1
shift

# "version FOLDER FILE": where a package's version stands.
put_versions() {
    for folder in "$packages"/*; do
        is_plain "${folder##*/}" || continue
        if [ -f "$folder/package.conf" ]; then
            echo "version $folder package.conf"
        elif [ -f "$folder/manifest.json" ]; then
            echo "version $folder manifest.json"
        fi
    done
}

take_time_stamp
# shellcheck disable=SC2154 # stamp: common.sh
rows=$({
    put_versions
    echo processes
    ps
    echo sizes
    du -ks -- "$@" 2>/dev/null # the last: a file's name can hold what ends a section
} | awk -v packages="$packages/" -v stamp="$stamp" '
# The package of a path, or "".
function package_of(path) {
    if (substr(path, 1, length(packages)) != packages) return ""
    path = substr(path, length(packages) + 1)
    sub(/\/.*/, "", path)
    return path ~ /^[A-Za-z0-9_][A-Za-z0-9._-]*$/ ? path : ""
}

# package.conf: VERSION="1.2"; manifest.json: {"version": "1.2"}. The first that there is.
function version_in(path, line, found) {
    found = ""
    while (found == "" && (getline line < path) > 0) {
        if (path ~ /conf$/ && sub(/^VERSION *= *"?/, "", line)) found = line "\n"
        while (path ~ /json$/ && match(line, /"version" *: *"[A-Za-z0-9._+-]*"/)) {
            found = substr(line, RSTART, RLENGTH - 1) "\n"
            line = substr(line, RSTART + 1)
        }
    }
    close(path)
    sub(/^"version" *: *"/, "", found)
    sub(/[^A-Za-z0-9._+-].*$/, "", found)
    return found
}

section == "" && $1 == "version" { version[package_of($2)] = version_in($2 "/" $3); next }
NF == 1 && ($1 == "processes" || $1 == "sizes") { section = $1; next }
section == "sizes" { size[package_of($2)] += $1; next }
!first { first = NF; next } # the head; the last column is the command
{
    # "29 root /usr/local/packages/Vandrel/Vandrel", or "{name} sh /usr/local/packages/..."
    if (/vela_status_monitor/) next
    for (i = first; i <= first + 1; ++i) {
        word = $i ~ /^\{/ ? $(i + 1) : $i
        next_word = $i ~ /^\{/ ? $(i + 2) : $(i + 1)
        if (word ~ /^(.*\/)?(sh|ash|dash|bash|busybox|python[0-9.]*|perl|lua|node|php)$/) word = next_word
        if (package_of(word) != "") { ++running[package_of(word)]; break }
    }
}
END {
    for (name in size)
        if (name != "")
            print name " " stamp "," version[name] "," (running[name] ? "running" : "stopped") "," \
                running[name] + 0 "," size[name]
}')
IFS='
'
for row in $rows; do
    append_row "$directory/${row%% *}.csv" DATE,TIME,VERSION,STATUS,PROCESSES,SIZE "${row#* }"
done
