#!/bin/bash
# usage: command-line-test.sh PELMARCTL PROGRAMS CASE
# Tests of pelmarctl's command line, and of how it starts and ends.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
source "$root/tests/pelmarctl/steps.sh"
readonly all_commands=(serve connect send notify listen watch list ping policy doctor)

# The long options in a command's help, or in that of the program.
options_of()  # [COMMAND]
{
    "$pelmarctl" "$@" --help | grep -oE '^ +(-.,)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u
}

Pelmarctl.ShowsItsCommandsStatusesAndExamplesAsHelp()
{
    local command
    expect 0 --help
    for command in "${all_commands[@]}"; do
        expect 0 --help
        expect_text ctl out "  $command "
        expect 0 "$command" --help
        expect_text ctl out "pelmarctl $command "
        expect_text ctl out "Example:"
    done
    expect 0 --help
    expect_text ctl out "pelmarctl serve demo --exec 'sha256sum'"
    expect_text ctl out "130 interrupted"
}

Pelmarctl.SaysItsVersion()
{
    expect 0 --version
    expect_text ctl out "pelmarctl $(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' \
        "$root/CMakeLists.txt")"
}

Pelmarctl.RefusesAWrongCommandLine()
{
    expect 2
    expect_error "a command is missing (see pelmarctl --help)"
    expect 2 frobnicate
    expect_error "'frobnicate' is no command (see pelmarctl --help)"
    expect 2 send
    expect_error "CHANNEL is required (see pelmarctl send --help)"
    expect 2 send demo --nonsense
    expect_error "The following argument was not expected: --nonsense (see pelmarctl send --help)"
    expect 2 send demo surplus
    expect_error "The following argument was not expected: surplus"
    expect 2 send demo -m a -f b
    expect_error "--message excludes --file"
    expect 2 send demo --role boss
    expect_error "--role: 'boss' is none of service, client"
    expect 2 send demo --timeout 0
    expect_error "--timeout: '0' is no number of seconds above 0 up to 86400"
    expect 2 serve demo --echo --exec cat
    expect_error "--echo excludes --exec"
    expect 2 serve demo --exec-timeout 3
    expect_error "--exec-timeout requires --exec"
    expect 2 serve demo --exec ""
    expect_error "--exec: the command is empty"
    expect 2 listen demo -n 0
    expect_error "--count: '0' is no whole number from 1 (see"
    expect 2 ping demo -c many
    expect_error "--count: 'many' is no whole number from 1 (see"
    expect 2 ping demo -s 33488897
    expect_error "--size: '33488897' is no whole number from 0 up to 33488896"
    expect 2 serve demo --exec cat --jobs 1.5
    expect_error "--jobs: '1.5' is no whole number from 1 up to 64"
    expect 2 ping demo -i -1
    expect_error "--interval: '-1' is no number of seconds from 0 up to 86400"
    expect 2 --color sometimes list
    expect_error "--color: 'sometimes' is none of auto, always, never"
    expect_output ""
}

Pelmarctl.RefusesWhatCannotBeAChannelsName()
{
    local command
    for command in "${all_commands[@]}"; do
        expect 2 "$command" 9lives
        expect_error "CHANNEL: channel name '9lives' begins with a digit"
    done
    expect 2 watch a-b
    expect_error "CHANNEL: channel name 'a-b' contains '-'"
    expect 2 watch "$(printf 'c%.0s' {1..223})"
    expect_error "CHANNEL: channel name 'ccc"
    expect 2 watch ""
}

Pelmarctl.ReportsAnUnreachableBus()
{
    local command
    for command in serve connect send notify listen watch list ping doctor; do
        expect 6 --bus "unix:path=$processes_dir/none" "$command" demo </dev/null
    done
    expect 6 --bus "unix:path=$processes_dir/none" list
    expect_error "the bus at unix:path=$processes_dir/none cannot be reached: "
    expect 6 --bus nonsense list
    expect_error "the bus at nonsense cannot be reached: "
}

Pelmarctl.UsesTheBusThatIsNamed()
{
    local address=$DBUS_SYSTEM_BUS_ADDRESS
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$processes_dir/none
    expect 0 --bus "$address" list
    expect_error "nobody has a channel's object"
}

Pelmarctl.GivesUpOnABusThatDoesNotAnswer()
{
    kill -STOP "$bus"
    expect 6 --timeout 0.2 list
    expect_error "the bus at $DBUS_SYSTEM_BUS_ADDRESS cannot be reached: it does not answer"
}

# Its standard output is that of this.
fail_to_write()  # REASON ARGUMENT...
{
    local status=0
    "$pelmarctl" "${@:2}" 2>"$processes_dir/ctl.err" || status=$?
    ((status == 1)) || fail "pelmarctl ${*:2} ended with status $status and not with 1"
    expect_error "cannot write to standard output: $1"
}

Pelmarctl.ReportsAStandardOutputThatCannotBeWritten()
{
    serve --echo
    fail_to_write "Bad file descriptor" send demo -m text >&-
    fail_to_write "Bad file descriptor" list >&-
    fail_to_write "No space left on device" send demo -m text >/dev/full
    fail_to_write "No space left on device" --help >/dev/full
    # The reader is gone before anything is written.
    exec {pipe}> >(:)
    wait $!
    fail_to_write "Broken pipe" send demo -m text >&"$pipe"
}

Pelmarctl.WorksWithoutStandardInputAndStandardError()
{
    serve --echo
    "$pelmarctl" send demo -m text <&- 2>&- >"$processes_dir/ctl.out"
    expect_output text
}

Pelmarctl.IsAsQuietOrVerboseAsItIsTold()
{
    expect 0 list
    expect_error "nobody has a channel's object"
    expect 0 -q list
    [[ ! -s $processes_dir/ctl.err ]] || fail "it is not quiet"
    serve --echo
    expect 0 send demo -m text
    [[ ! -s $processes_dir/ctl.err ]] || fail "it says more than it is asked for"
    expect 0 -v send demo -m text
    expect_error "partner $service_name is ready"
    expect_text ctl err "kestrin: "
    expect_output text
    expect 2 -q -v list
}

Pelmarctl.PaintsOnlyWhereItIsWanted()
{
    local escape=$'\e['
    expect 3 doctor demo
    expect_no_text ctl out "$escape"
    expect 3 --color always doctor demo
    expect_text ctl out "$escape"
    script -qec "'$pelmarctl' doctor demo" /dev/null >"$processes_dir/terminal.out" ||
        true
    expect_text terminal out "$escape"
    script -qec "NO_COLOR=1 '$pelmarctl' doctor demo" /dev/null >"$processes_dir/terminal.out" ||
        true
    expect_no_text terminal out "$escape"
    script -qec "'$pelmarctl' --color never doctor demo" /dev/null >"$processes_dir/terminal.out" ||
        true
    expect_no_text terminal out "$escape"
}

TheCompletion.OffersEveryCommandAndOption()
{
    local command option offered
    complete_line()  # WORD...
    {
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
        _pelmarctl
        printf '%s\n' "${COMPREPLY[@]}"
    }
    # shellcheck source=/dev/null
    source "$root/tools/pelmarctl/completion.bash"
    [[ $(complete -p pelmarctl) == *_pelmarctl* ]] || fail "nothing is registered"
    for command in "${all_commands[@]}"; do
        grep -qx "$command" <<<"$(complete_line pelmarctl "")" || fail "it does not offer $command"
        offered=$(complete_line pelmarctl "$command" demo --)
        while read -r option; do
            grep -qxe "$option" <<<"$offered" || fail "it does not offer $command $option"
        done < <(options_of "$command"; options_of)
    done
    [[ $(complete_line pelmarctl send demo --role s) == service ]] || fail "it knows no roles"
    [[ $(complete_line pelmarctl --timeout 3 se) == $'serve\nsend' ]] ||
        fail "it takes 3 for a command"
    [[ $(complete_line pelmarctl send demo -f "$root/READ") == "$root/README.md" ]] ||
        fail "it knows no files"
}

TheManualPage.DescribesEveryCommandAndOption()
{
    local page=$processes_dir/page command option status statuses
    MANWIDTH=100 man --warnings=w -l "$root/tools/pelmarctl/pelmarctl.1" >"$page" \
        2>"$processes_dir/man.err" || fail "man does not show it"
    [[ ! -s $processes_dir/man.err ]] || fail "man finds mistakes in it"
    for command in "${all_commands[@]}"; do
        grep -qE "^ +$command " "$page" || fail "it does not describe $command"
        while read -r option; do
            grep -qFe "$option" "$page" || fail "it does not describe $command $option"
        done < <(options_of "$command"; options_of)
    done
    statuses=$(sed -n '/^EXIT STATUS/,/^[A-Z]/p' "$page")
    for status in 0 1 2 3 4 5 6 7 8 130; do
        grep -qE "^ +$status " <<<"$statuses" ||
            fail "it does not explain status $status"
    done
}

TheReadme.ShowsWhatReallyHappens()
{
    local blocks=$processes_dir/blocks command
    # Process ids, the user and the unit are the reader's own.
    neutral()
    {
        sed -E -e "s/ $(id -un) +[0-9]+ +[^ ]+ / alice 4711 - /" "$@" | tr -s ' '
    }
    PATH=$(dirname "$pelmarctl"):$PATH
    cd "$root"
    # shellcheck disable=SC2016
    sed -n '/^```console$/,/^```$/p' README.md | sed '/^```/d' >"$blocks"
    # shellcheck disable=SC2016
    command=$(sed -n 's/^1\$ //p' "$blocks")
    # shellcheck disable=SC2086
    start service $command
    service=$started
    await service "$service" "on channel demo"
    sed -n '/^1\$/{n;p}' "$blocks" | diff - "$processes_dir/service.err" ||
        fail "the service says something else"
    while read -r command; do
        echo "2\$ $command"
        bash -c "$command" 2>&1 || true
    done < <(sed -n 's/^2\$ //p' "$blocks") >"$processes_dir/session"
    diff <(sed -n '/^2\$/,$p' "$blocks" | tr -s ' ') <(neutral "$processes_dir/session") ||
        fail "README.md shows something else"
}

start_private_bus
"$3"
