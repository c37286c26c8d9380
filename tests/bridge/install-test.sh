#!/bin/bash
# usage: install-test.sh BUILD-DIRECTORY CASE
# Tests of what is installed with the bridge. A case is a function named Subject.Sentence;
# CMakeLists.txt registers them all.
set -euo pipefail
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

need()  # COMMAND PACKAGE
{
    command -v "$1" >/dev/null && return
    echo "SKIPPED: there is no $1 here (Debian: apt-get install $2)"
    exit 77
}

TheInstalledBridge.IsComplete()
{
    local file
    for file in bin/pelmar-mqtt-bridge share/man/man8/pelmar-mqtt-bridge.8 \
        lib/systemd/system/pelmar-mqtt-bridge.service lib/sysusers.d/pelmar-mqtt-bridge.conf; do
        [[ -f $prefix/$file ]] || { echo "FAILED: $file is not installed" >&2; exit 1; }
    done
    grep -q '^ExecStart=/.*/bin/pelmar-mqtt-bridge --config ' \
        "$prefix/lib/systemd/system/pelmar-mqtt-bridge.service"
    "$prefix/bin/pelmar-mqtt-bridge" --version
}

TheManPage.NamesEachOption()
{
    local page=$prefix/share/man/man8/pelmar-mqtt-bridge.8 option
    while read -r option; do
        grep -qE "Fl -${option#--}( |$)" "$page" ||
            { echo "FAILED: the man page does not have $option" >&2; exit 1; }
    done < <("$prefix/bin/pelmar-mqtt-bridge" --help | grep -oE '^  (-h,)?--[a-z-]+' |
        grep -oE -- '--[a-z-]+')
}

TheManPage.IsValid()
{
    need mandoc mandoc
    local findings
    findings=$(mandoc -T lint -W warning "$prefix/share/man/man8/pelmar-mqtt-bridge.8" |
        grep -v 'mandoc.db' || true)
    [[ -z $findings ]] || { echo "$findings" >&2; exit 1; }
}

TheUnit.IsHardened()
{
    need systemd-analyze systemd
    systemd-analyze security --offline=true --no-pager --threshold=19 \
        "$prefix/lib/systemd/system/pelmar-mqtt-bridge.service"
}

cmake --install "$build" --prefix "$prefix" >/dev/null
"$2"
