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

put_versions() {
    for folder in "$packages"/*; do
        is_plain "${folder##*/}" || continue
        version=
        if [ -f "$folder/package.conf" ]; then
            version=$(sed -n 's/^VERSION *= *"\{0,1\}\([A-Za-z0-9._+-]*\).*/\1/p' "$folder/package.conf")
        elif [ -f "$folder/manifest.json" ]; then
            version=$(sed -n 's/.*"version" *: *"\([A-Za-z0-9._+-]*\)".*/\1/p' "$folder/manifest.json")
        fi
        printf 'version %s %s\n' "$folder" "${version%%[!A-Za-z0-9._+-]*}" # one line of it
    done
}

{
    put_versions
    du -ks -- "$@" 2>/dev/null | sed 's/^/size /'
    echo processes
    ps
} | awk -v packages="$packages/" -v stamp="$(time_stamp)" '
# The package of a path, or "".
function package_of(path) {
    if (substr(path, 1, length(packages)) != packages) return ""
    path = substr(path, length(packages) + 1)
    sub(/\/.*/, "", path)
    return path ~ /^[A-Za-z0-9_][A-Za-z0-9._-]*$/ ? path : ""
}

!processes && $1 == "version" { version[package_of($2)] = $3; next }
!processes && $1 == "size" { size[package_of($3)] += $2; next }
!processes { processes = $1 == "processes"; next }
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
            print name "\t" stamp "," version[name] "," (running[name] ? "running" : "stopped") "," \
                running[name] + 0 "," size[name]
}' | {
    tab=$(printf '\t')
    while IFS=$tab read -r name row; do
        append_row "$directory/$name.csv" DATE,TIME,VERSION,STATUS,PROCESSES,SIZE "$row"
    done
}
