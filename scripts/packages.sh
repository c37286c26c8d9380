# Installing what a script needs, for bash scripts that source this file.
# shellcheck shell=bash

# What the libraries and the example programs are built with, and pelmarctl beyond that.
# shellcheck disable=SC2034
build_packages=(g++ cmake ninja-build pkgconf libglib2.0-dev)
# shellcheck disable=SC2034
tool_packages=(libcli11-dev nlohmann-json3-dev)

# What the MQTT bridge is built with, and what it is tried out and tested with.
# shellcheck disable=SC2034
bridge_packages=(libmosquitto-dev libcli11-dev)
# shellcheck disable=SC2034
bridge_test_packages=(mosquitto mosquitto-clients openssl iproute2 mandoc)

# What the benchmarks are built and run with.
# shellcheck disable=SC2034
bench_packages=(libbenchmark-dev nlohmann-json3-dev libcli11-dev libsystemd-dev libsdbus-c++-dev
    libdbus-1-dev libzmq3-dev libnng-dev valgrind strace)

# What all the tests are built and run with, but for the benchmarks.
suite_packages=("${build_packages[@]}" "${tool_packages[@]}" "${bridge_packages[@]}"
    "${bridge_test_packages[@]}" libgtest-dev libgmock-dev dbus-daemon dbus-system-bus-common
    libglib2.0-bin systemd jq make man-db)

# install_packages NAME...: installs those Debian packages that are missing, and does nothing when
# none is.
install_packages()
{
    if ! command -v dpkg-query >/dev/null; then
        echo "This is no Debian or Ubuntu: what corresponds to these packages has to be there: $*" >&2
        return
    fi
    local missing=() package
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    local as_root=()
    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null; then
            echo "Packages are missing and there is no sudo. As root: apt-get install ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    "${as_root[@]}" apt-get -qq update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install --yes \
        --no-install-recommends "${missing[@]}" </dev/null >/dev/null
}
