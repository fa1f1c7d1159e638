#!/bin/bash
# Installs the Debian packages that are missing, and from npm the page's libraries and test tools.
#
#   .ci/dependencies.sh run     what ./run needs: to build, and to simulate a camera
#   .ci/dependencies.sh test    what ./test needs on top of it
#   .ci/dependencies.sh bench   what bench/run needs on top of it: the peers
#   .ci/dependencies.sh emulator    what ./test --long runs other processors' programs with
#   .ci/dependencies.sh package ARCH...   what ./pack needs: amd64, aarch64, armhf
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
libivykis0          # under syslog-ng
libnet1             # under syslog-ng
libwrap0            # under syslog-ng
libpcre3            # under syslog-ng
libjson-c5          # under syslog-ng
libpopt0            # under logrotate
END
}

# Programs of the camera whose packages can't be installed beside others or would start services of
# the host: they are unpacked into build/packages.
unpacked_packages() {
    sed 's/ *#.*//' <<'END'
syslog-ng-core      # the camera's other system log; excludes rsyslog
logrotate           # rotates what syslog-ng writes; wants cron
END
}

# Only tests need these; as services of the host they would run there.
unpacked_test_packages() {
    sed 's/ *#.*//' <<'END'
prometheus               # scrapes the cameras of a test; promtool
python3-prometheus-client # reads OpenMetrics strictly
END
}

# Peers of the benchmarks.
unpacked_bench_packages() {
    sed 's/ *#.*//' <<'END'
sysstat                  # sadc
collectd-core            # collectd
prometheus-node-exporter # a scrape
END
}
bench_packages() {
    sed 's/ *#.*//' <<'END'
goaccess            # statistics of the HTTP log
libltdl7            # under collectd
END
}

test_packages() {
    sed 's/ *#.*//' <<'END'
libgtest-dev        # unit tests
clang               # a second compiler, for the static analysis and the fuzz targets
clang-tidy          # static analysis
clang-format        # format of the sources
shellcheck          # check of the scripts
pyflakes3           # check of the simulator's Python
unzip               # opens what the daemon packed
git                 # lists the files to check
chromium            # tests of the page
END
}

# A package for another architecture: Debian's cross compiler, and GLib with what it needs unpacked
# into build/sysroot, where it meets no package of the host.
triplet_of() { # ARCH
    case $1 in
    amd64) echo x86_64-linux-gnu ;;
    aarch64) echo aarch64-linux-gnu ;;
    armhf) echo arm-linux-gnueabihf ;;
    *) echo "no such architecture: $1" >&2 && return 1 ;;
    esac
}
debian_name_of() { # ARCH
    case $1 in
    aarch64) echo arm64 ;;
    *) echo "$1" ;;
    esac
}
cross_compilers() { # ARCH...
    local arch
    for arch in "$@"; do
        [ "$(debian_name_of "$arch")" = "$(dpkg --print-architecture)" ] ||
            echo "g++-$(triplet_of "$arch" | tr _ -)"
    done
}
sysroot_packages() {
    sed 's/ *#.*//' <<'END'
libc6               # to run it in an emulator
libgcc-s1
libstdc++6
libglib2.0-0
libglib2.0-dev
libpcre2-8-0        # from here on what GLib needs
libpcre2-dev
libffi8
libffi-dev
zlib1g
zlib1g-dev
libmount1
libmount-dev
libblkid1
libblkid-dev
libselinux1
libselinux1-dev
libsepol2
libsepol-dev
libgtest-dev        # unit tests in the emulator
END
}

missing_packages() {
    local package
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            echo "$package"
    done
}

architectures=()
case ${1:-} in
package)
    architectures=("${@:2}")
    mapfile -t wanted < <(run_packages; cross_compilers "${architectures[@]}")
    ;;
run) mapfile -t wanted < <(run_packages) ;;
emulator) wanted=(qemu-user-static) ;;
test) mapfile -t wanted < <(run_packages; test_packages) ;;
bench) mapfile -t wanted < <(run_packages; test_packages; bench_packages) ;;
*) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac
mapfile -t missing < <(missing_packages "${wanted[@]}")
# Whoever has Node.js from elsewhere keeps it.
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        echo "Missing packages: ${missing[*]} (install them as root, there is no sudo)" >&2
        exit 1
    fi
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" apt-get -qq update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq install --no-install-recommends "${missing[@]}" >/dev/null
fi

# A package's folder is there once it is whole.
unpack() { # PACKAGE
    local folder=build/packages/$1 work
    [ ! -e "$folder" ] || return 0
    echo "Unpacking: $1"
    mkdir -p build/packages
    work=$(mktemp -d) || return 1
    if ! (cd "$work" && apt-get -qq download "$1" >/dev/null 2>&1); then
        "${as_root[@]}" apt-get -qq update
        (cd "$work" && apt-get -qq download "$1" >/dev/null)
    fi && dpkg -x "$work"/*.deb "$work/files" && chmod 755 "$work/files" &&
        cp -rT "$work/files" "$folder.$$" && mv -T "$folder.$$" "$folder"
    local status=$?
    rm -rf "$work"
    return $status
}
mapfile -t unpacked < <(unpacked_packages; [ "$1" != test ] || unpacked_test_packages
    [ "$1" != bench ] || unpacked_bench_packages)
for package in "${unpacked[@]}"; do
    if ! unpack "$package"; then
        echo "$package can not be unpacked" >&2
        [ "$1" = run ] || exit 1
    fi
done

# The package lists of another architecture are kept apart from the host's.
sysroot() { # ARCH
    local folder=build/sysroot/$1 name work packages apt
    mapfile -t packages < <(sysroot_packages)
    [ "$(cat "$folder/packages" 2>/dev/null)" != "${packages[*]}" ] || return 0
    echo "Unpacking: libraries for $1"
    name=$(debian_name_of "$1")
    work=$(mktemp -d) && mkdir -p build/sysroot "$work/lists/partial" "$work/files" || return 1
    : >"$work/status"
    apt=(apt-get -qq -o APT::Architecture="$name" -o APT::Architectures="$name"
        -o Dir::State::lists="$work/lists" -o Dir::State::status="$work/status"
        -o Dir::Cache="$work" -o APT::Sandbox::User=root)
    # A mirror that lacks one list may have the packages all the same.
    "${apt[@]}" update || echo "The package lists for $1 are incomplete." >&2
    (cd "$work" && "${apt[@]}" download "${packages[@]/%/:$name}" >/dev/null) &&
        find "$work" -maxdepth 1 -name '*.deb' -exec dpkg -x {} "$work/files" \; &&
        echo "${packages[*]}" >"$work/files/packages" && rm -rf "$folder" &&
        chmod 755 "$work/files" && cp -rT "$work/files" "$folder.$$" && mv -T "$folder.$$" "$folder"
    local status=$?
    rm -rf "$work"
    return $status
}
for arch in "${architectures[@]}"; do
    [ "$(debian_name_of "$arch")" = "$(dpkg --print-architecture)" ] || sysroot "$arch"
done

# The page's libraries and what bundles them; a test needs the browser's tools on top of that.
omitted=(--omit=dev)
needed=node_modules/esbuild
if [ "$1" = test ] || [ "$1" = bench ] || [ -d node_modules/typescript ]; then
    omitted=()
    needed=node_modules/typescript
fi
if [ package-lock.json -nt node_modules/.package-lock.json ] || [ ! -d "$needed" ]; then
    npm ci --silent --no-audit --no-fund "${omitted[@]}"
    touch node_modules/.package-lock.json
fi
