#!/bin/bash
# Installs the Debian packages that are missing, and the page's test tools from npm.
#
#   .ci/dependencies.sh run     what ./run needs: to build, and to simulate a camera
#   .ci/dependencies.sh test    what ./test needs on top of it
#
# With nothing missing it neither asks for rights nor looks at the network.
set -eu
cd "$(dirname "$(readlink -f "$0")")/.."

run_packages() {
    sed 's/ *#.*//' <<'END'
g++                 # the daemon is C++20
cmake               # build
ninja-build         # build
pkg-config          # finds GLib
ccache              # rebuilds without compiling the same again
libglib2.0-dev      # the daemon's main loop, D-Bus
libjpeg62-turbo-dev # the camera's pictures
libglib2.0-bin      # gdbus, which the daemon runs
bubblewrap          # the camera's private root
e2fsprogs           # makes the camera's storages
mount               # mounts in the camera; losetup
iproute2            # the camera's network
python3             # the simulator's programs
apache2-bin         # the camera's web server; without a service on the host
rsyslog             # the camera's system log
dbus-daemon         # the camera's system bus
dbus-bin            # dbus-send, which the daemon runs
busybox             # the camera's ps, top and killall
faketime            # time that runs faster
iputils-ping        # under the camera's ping
netcat-openbsd      # under the camera's nc
traceroute          # the camera's own, with TCP probes
tcpdump             # under the camera's capture tool
zip                 # the daemon packs sessions with it
curl                # what ./run shows to try
END
}

test_packages() {
    sed 's/ *#.*//' <<'END'
libgtest-dev        # unit tests
clang               # a second compiler, for the static analysis and the fuzz targets
clang-tidy          # static analysis
clang-format        # format of the sources
shellcheck          # check of the scripts
unzip               # opens what the daemon packed
git                 # lists the files to check
chromium            # tests of the page
END
}

missing_packages() {
    local package
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            echo "$package"
    done
}

case ${1:-} in
run) mapfile -t wanted < <(run_packages) ;;
test) mapfile -t wanted < <(run_packages; test_packages) ;;
*) sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac
mapfile -t missing < <(missing_packages "${wanted[@]}")
if [ "$1" = test ]; then
    # Whoever has Node.js from elsewhere keeps it.
    command -v node >/dev/null || missing+=(nodejs)
    command -v npm >/dev/null || missing+=(npm)
fi

if [ ${#missing[@]} -gt 0 ]; then
    as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "Missing packages: ${missing[*]} (install them as root, there is no sudo)" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" apt-get -qq update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq install --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ "$1" = test ] && [ package-lock.json -nt node_modules/.package-lock.json ]; then
    npm ci --silent --no-audit --no-fund
    touch node_modules/.package-lock.json
fi
