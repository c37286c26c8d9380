# Background processes and a private bus, for bash scripts that source this file. Everything that is
# started here ends with the script, however that ends: it sets the traps for EXIT, INT and TERM.
# shellcheck shell=bash

processes_dir=$(mktemp -d)  # what the processes print, and the bus's socket
processes_patience=30       # seconds, for what takes a fraction of one

# start NAME COMMAND [ARGUMENT...]: runs it in the background; its standard output goes to
# $processes_dir/NAME.out, its standard error to $processes_dir/NAME.err, its id to $started.
start()
{
    start_reading /dev/null "$@"
}

# start_reading FILE NAME COMMAND [ARGUMENT...]: the same, with the file as its standard input.
start_reading()
{
    local out=$processes_dir/$2.out err=$processes_dir/$2.err
    # Made here, so that they are there before the process is.
    : >"$out"
    : >"$err"
    # In a session of its own: the kernel hangs up the whole group of a stopped process.
    setsid setpriv --pdeathsig KILL "${@:3}" <"$1" >>"$out" 2>>"$err" &
    started=$!
}

# await NAME ID TEXT: returns as soon as the process has printed a line with the text; fails when
# it ends without that.
await()
{
    local prints=("$processes_dir/$1.out" "$processes_dir/$1.err")
    timeout "$processes_patience" grep -qFe "$3" \
        < <(exec tail -q -n +1 -s 0.1 -f --pid="$2" "${prints[@]}") && return
    echo "$1 did not print '$3'. What it printed:" >&2
    cat "${prints[@]}" >&2
    return 1
}

# start_private_bus: starts a bus daemon, which is the system bus for everything started after it.
# Its id goes to $bus.
start_private_bus()
{
    start_bus dbus-daemon
}

# start_bus NAME [CONFIGURATION]: the same, for a script that starts several, or one with rules of its
# own.
start_bus()
{
    local rules=${2-$(dirname "${BASH_SOURCE[0]}")/private-bus.conf}
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$processes_dir/$1.bus
    start "$1" dbus-daemon --nofork --nopidfile --print-address=1 \
        --config-file="$rules" --address="$DBUS_SYSTEM_BUS_ADDRESS"
    # shellcheck disable=SC2034
    bus=$started
    await "$1" "$started" unix:path=
}

# start_broker: starts an MQTT broker on loopback. Its id goes to $broker, its port to $broker_port.
start_broker()
{
    for ((broker_port = 20000 + RANDOM; ; ++broker_port)); do
        printf 'listener %s 127.0.0.1\nallow_anonymous true\nuser %s\n' "$broker_port" "$(id -un)" \
            >"$processes_dir/broker.conf"
        start broker "$(PATH=$PATH:/usr/sbin command -v mosquitto)" -c "$processes_dir/broker.conf"
        broker=$started
        timeout "$processes_patience" grep -qE 'running$|Error' \
            < <(exec tail -q -n +1 -s 0.1 -f --pid="$broker" "$processes_dir"/broker.{out,err})
        grep -q 'running$' "$processes_dir/broker.err" && return
        grep -q 'Address already in use' "$processes_dir/broker.err" || break
    done
    cat "$processes_dir/broker.err" >&2
    return 1
}

# start_monitor: shows who acquires and who releases which bus name, in $processes_dir/monitor.out.
start_monitor()
{
    start monitor gdbus monitor --system --dest org.freedesktop.DBus
    monitor=$started
    await monitor "$monitor" "is owned by"
}

# await_pulse NAME: returns when the bus name has been acquired and released, also if it was before;
# start_monitor has to come first.
await_pulse()
{
    await monitor "$monitor" "NameOwnerChanged ('$1', ':"
}

end_processes()
{
    local ids signal
    mapfile -t ids <<<"$(jobs -pr)"
    # One that was stopped has to go on to end. All of them do before the first one ends: a CONT in
    # the middle of the leak sanitizer's check at a process's end makes that wait for ever.
    for signal in CONT TERM; do
        kill -"$signal" "${ids[@]}" || true
    done 2>/dev/null
    wait
    rm -rf "$processes_dir"
}

trap end_processes EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
