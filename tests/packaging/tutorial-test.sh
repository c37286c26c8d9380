#!/bin/bash
# usage: tutorial-test.sh CASE
# Tests of docs/using.md. A case is a function named Subject.Sentence; CMakeLists.txt registers them
# all.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
document=$root/docs/using.md
source "$root/scripts/processes.sh"

fail()
{
    echo "FAILED: $*" >&2
    exit 1
}

skip()
{
    echo "SKIPPED: $*"
    exit 77
}

# The content of the document's blocks that begin with ```HEAD.
blocks()  # HEAD
{
    awk -v head="\`\`\`$1" '/^```/ { if (inside) inside = 0; else if ($0 == head) inside = 1; next }
        inside' "$document"
}

TheTutorial.ShowsTheFilesOfTheExample()
{
    local heads file shown=0
    heads=$(sed -n 's/^```\([a-z]* [^ ]*\)$/\1/p' "$document")
    while read -r language file; do
        blocks "$language $file" | diff - "$root/examples/hello/$file" ||
            fail "docs/using.md shows another $file than examples/hello"
        ((++shown))
    done <<<"$heads"
    ((shown == 5)) || fail "docs/using.md shows $shown files and not 5"
}

TheTutorial.SaysHowTheTwoUnitsDiffer()
{
    sed -e 's/hello-service/hello-client/' -e 's/the service side/the client side/' \
        "$root/examples/hello/hello-service.service" |
        diff - "$root/examples/hello/hello-client.service" || fail "they differ in more than that"
}

# ---- A machine of the tutorial's own ----------------------------------------------------------

# What is written to these folders is gone with the process; the other processes do not see it.
have_own_folders()
{
    local folder layers=/mnt
    mount -t tmpfs tmpfs "$layers"
    for folder in etc usr var; do
        mkdir "$layers/$folder" "$layers/$folder.work"
        mount -t overlay overlay "/$folder" \
            -o "lowerdir=/$folder,upperdir=$layers/$folder,workdir=$layers/$folder.work"
    done
    mount -t tmpfs tmpfs /run
    mkdir /run/dbus /run/lock
}

# The bus as the machine would have it, with its own configuration file.
start_system_bus()
{
    unset DBUS_SYSTEM_BUS_ADDRESS
    start dbus-daemon dbus-daemon --system --nofork --nopidfile --print-address=1
    await dbus-daemon "$started" unix:path=
}

sudo()
{
    "$@"
}

# In the place of the first process: what the commands of the tutorial make it do.
systemctl()
{
    local unit file user command
    case "$*" in
        daemon-reload)
            systemd-analyze verify /usr/lib/systemd/system/hello-*.service ;;
        "reload dbus")
            gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
                --method org.freedesktop.DBus.ReloadConfig ;;
        "enable --now "*)
            for unit in "${@:3}"; do
                SYSTEMD_OFFLINE=1 command systemctl enable "$unit"
                file=/usr/lib/systemd/system/$unit.service
                user=$(sed -n 's/^User=//p' "$file")
                command=$(sed -n 's/^ExecStart=//p' "$file")
                start "$unit" setpriv --reuid "$user" --regid "$user" --clear-groups \
                    --pdeathsig KILL "$command"
            done ;;
        *) fail "this test does not know systemctl $*" ;;
    esac
}

journalctl()
{
    [[ $* == "-u hello-service -u hello-client --no-pager" ]] ||
        fail "this test does not know journalctl $*"
    await hello-client "$started" "they go "
    cat "$processes_dir"/hello-*.{out,err}
}

run_the_tutorial()
{
    have_own_folders || skip "no overlay can be mounted here, and so no machine be played"
    start_system_bus
    mkdir "$processes_dir/home"
    cd "$processes_dir/home"
    mkdir pelmar
    tar -C "$root" --exclude=./build --exclude=./.git -c . | tar -C pelmar -x

    export CMAKE_BUILD_PARALLEL_LEVEL=2
    blocks sh >commands
    local command
    while read -r command <&3; do
        echo "\$ $command"
        eval "$command" >output 2>&1 </dev/null || [[ $command == *" gdbus call "* ]] ||
            { cat output; fail "$command"; }
        cat output
        cat output >>outputs
    done 3<commands
    blocks output >expected
    while read -r line; do
        grep -qFe "$line" outputs || fail "docs/using.md promises '$line'"
    done <expected
}

TheTutorial.EndsWithTwoProgramsThatFoundEachOther()
{
    ((EUID == 0)) || skip "not root, and so nothing can be installed"
    for program in systemd-sysusers systemd-analyze gdbus; do
        command -v "$program" >/dev/null || skip "there is no $program here"
    done
    [[ -f /usr/share/dbus-1/system.conf ]] ||
        skip "there is no system.conf here (Debian: apt-get install dbus-system-bus-common)"
    if [[ -z ${IN_NAMESPACE-} ]]; then
        unshare --mount true 2>/dev/null || skip "no mount namespace can be made here"
        IN_NAMESPACE=yes unshare --mount bash "${BASH_SOURCE[0]}" "${FUNCNAME[0]}"
        return
    fi
    run_the_tutorial
}

"$1"
