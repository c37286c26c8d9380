# What the tests of pelmarctl have in common, each on a bus of its own. A test script says
# what $root is, and gives its arguments on: the program, the folder of the test programs, and the
# case, a function named Subject.Sentence; CMakeLists.txt registers them all.
# shellcheck shell=bash disable=SC2034,SC2154

pelmarctl=$1
programs=$2
source "$root/scripts/processes.sh"
source "$root/tests/support/steps.sh"
export LC_ALL=C.UTF-8
unset NO_COLOR

# expect STATUS ARGUMENT...: runs pelmarctl to its end; what it prints is in ctl.out and ctl.err.
expect()
{
    local status=0
    timeout 30 setpriv --pdeathsig KILL "$pelmarctl" "${@:2}" \
        >"$processes_dir/ctl.out" 2>"$processes_dir/ctl.err" || status=$?
    ((status == $1)) || fail "pelmarctl ${*:2} ended with status $status and not with $1"
}

expect_no_text()  # NAME out|err TEXT
{
    ! grep -qFe "$3" "$processes_dir/$1.$2" || fail "$1.$2 has '$3'"
}

expect_error()  # TEXT
{
    expect_text ctl err "pelmarctl: $1"
}

# What pelmarctl wrote, exactly.
expect_output()  # TEXT
{
    printf %s "$1" | cmp - "$processes_dir/ctl.out" || fail "the output is not '$1'"
}

# A jq expression that has to be true for all of the objects on the output, as an array.
expect_json()  # NAME EXPRESSION
{
    jq -es "all(.[]; .schema == 1) and ($2)" "$processes_dir/$1.out" >/dev/null ||
        fail "$1.out is not what '$2' says"
}

# As a command in the background, which goes on.
begin()  # NAME ARGUMENT...
{
    start "$1" "$pelmarctl" "${@:2}"
}

# Of the channel demo; the id is in $service, the bus name in $service_name.
serve()  # ARGUMENT...
{
    begin service serve demo "$@"
    service=$started
    await service "$service" "on channel demo as service :"
    service_name=$(sed -n 's/.* as service \(:.*\)/\1/p' "$processes_dir/service.err")
}

start_client()
{
    begin client connect demo
    client=$started
    await client "$client" "is ready"
}

# A process with its input on a descriptor of this shell, ${told[NAME]}.
declare -A told
start_told()  # NAME COMMAND...
{
    mkfifo "$processes_dir/$1.in"
    start_reading "$processes_dir/$1.in" "$@"
    local descriptor
    exec {descriptor}>"$processes_dir/$1.in"
    told[$1]=$descriptor
}

start_actor()
{
    start_told actor "$programs/bus-actor"
    actor=$started
    await actor "$actor" "name :"
    actor_name=$(sed -n 's/^name //p' "$processes_dir/actor.out")
    shown_actor="$actor_name ($(id -un), pid $actor, $programs/bus-actor)"
}

tell_actor()  # LINE
{
    echo "$1" >&"${told[actor]}"
    await actor "$actor" "done $1"
}

end_private_bus()
{
    kill -TERM "$bus"
    wait "$bus" || true
}

# A bus with rules of its own; everything else is allowed to everybody.
start_bus_with()  # XML
{
    cat >"$processes_dir/bus.conf" <<END
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$processes_dir/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/>
  </policy>
  $1
</busconfig>
END
    start_bus dbus-daemon "$processes_dir/bus.conf"
}

# Nobody but the daemon's own rules let anybody own a name.
readonly deny_names='<policy context="mandatory"><deny own="*"/></policy>'
