#!/bin/bash
# usage: doctor-test.sh PELMARCTL PROGRAMS CASE
# Tests of pelmarctl doctor: each breaks something, and the doctor has to name it.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
source "$root/tests/pelmarctl/steps.sh"

# expect_cause STATUS CHECK TEXT [OPTION...]: what the doctor finds, with a remedy.
expect_cause()
{
    expect "$1" doctor demo "${@:4}"
    grep -qE "^problem  $2 +" "$processes_dir/ctl.out" || fail "nothing is found by the check $2"
    expect_text ctl out "$3"
    expect_text ctl out "remedy: "
}

# The two sides as programs that are no endpoints: they repair nothing.
declare -A plain_id
start_plain()  # ROLE
{
    start_told "$1" "$programs/peer-$1" demo
    plain=$started
    plain_id[$1]=$plain
    await "$1" "$plain" "name :"
    plain_name=$(sed -n 's/^name //p' "$processes_dir/$1.out")
}

# ---- Nothing is wrong -----------------------------------------------------------------------

ADoctor.FindsNothingWrongWithAHealthyChannel()
{
    serve --echo
    start_client
    expect 0 doctor demo
    expect_error "no problem found"
    expect_text ctl out "ok       daemon     dbus-daemon, pid $bus, configured by "
    expect_text ctl out "ok       GLib       version "
    expect_text ctl out "have found each other"
    expect_no_text ctl out "problem"
    expect_no_text ctl out "unknown"
}

expect_no_fault()  # PAIRS
{
    expect 0 doctor demo
    (($(grep -c "have found each other" "$processes_dir/ctl.out") == $1)) ||
        fail "not $1 pairs have found each other"
    expect_no_text ctl out "problem"
    expect_no_text ctl out "unknown"
}

ADoctor.FindsNothingWrongWithAPlainClientOfAnEndpoint()
{
    serve --echo
    start_plain client
    await service "$service" "$plain_name is ready"
    begin second connect demo
    await second "$started" "is ready"
    expect_no_fault 2
}

ADoctor.FindsNothingWrongWithAPlainServiceOfAnEndpoint()
{
    start_plain service
    start_client
    expect_no_fault 1
}

ADoctor.TellsItsFindingsAsJson()
{
    serve --echo
    expect 3 doctor demo --json
    expect_json ctl 'any(.[]; .result == "ok" and .check == "bus") and
        any(.[]; .result == "problem" and .check == "sides" and .remedy != null)'
}

ADoctor.ExaminesTheBusAlone()
{
    expect 0 doctor
    expect_text ctl out "ok       limits"
    expect_no_text ctl out "handshake"
}

ADoctor.DisturbsNoLiveHandshake()
{
    serve --echo
    begin watcher watch
    await watcher "$started" "watching"
    expect 3 doctor demo
    # Its own pulse shows that nothing came before.
    expect 0 send demo -m text
    await watcher "$started" "ACK"
    (($(grep -cE ' client +SYN( |$)' "$processes_dir/watcher.out") == 1)) ||
        fail "the doctor pulsed"
}

ADoctor.TakesPartWhenItIsTold()
{
    serve --echo
    expect 3 doctor demo --as client
    expect_text ctl out "ok       attempt    ready with $service_name as client"
    await service "$service" "is lost"
    expect 3 doctor demo --as service --timeout 1
    expect_text ctl out "nobody answers the SYN of a partner as service"
}

# ---- The bus --------------------------------------------------------------------------------

ADoctor.FindsThatThereIsNoDaemon()
{
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$processes_dir/none
    expect_cause 6 bus "there is no socket $processes_dir/none: No such file or directory"
}

ADoctor.FindsThatTheDaemonHasEnded()
{
    kill -KILL "$bus"
    wait "$bus" || true
    expect_cause 6 bus "nobody listens on ${DBUS_SYSTEM_BUS_ADDRESS#unix:path=}: the bus daemon that made it has ended"
}

ADoctor.FindsThatTheDaemonHangs()
{
    kill -STOP "$bus"
    expect_cause 6 bus "who listens on ${DBUS_SYSTEM_BUS_ADDRESS#unix:path=} does not let this process in" \
        --timeout 0.2
}

ADoctor.FindsThatTheAddressIsWrong()
{
    export DBUS_SYSTEM_BUS_ADDRESS=/run/dbus/system_bus_socket
    expect_cause 6 bus "'/run/dbus/system_bus_socket' is no address of a bus"
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$processes_dir/bus.err
    : >"$processes_dir/bus.err"
    expect_cause 6 bus "$processes_dir/bus.err is no socket"
}

# ---- The policy -----------------------------------------------------------------------------

ADoctor.FindsThatNobodyMayOwnTheNames()
{
    end_private_bus
    start_bus_with "$deny_names"
    expect_cause 5 rights \
        "nobody may be the service: the policy lets nobody own its names, root included"
    expect_text ctl out "no file mentions the channel"
    expect_text ctl out "remedy: pelmarctl policy demo --service-user U --client-user V > "
}

ADoctor.FindsAMemberThatThePolicyRefuses()
{
    end_private_bus
    start_bus_with "<policy context=\"mandatory\"><deny own=\"*\"/>
        $(printf '<allow own="org.vaska.Pelmar.demo_CLIENT_%s"/>' SYN SYN_ACK ACK)</policy>"
    start_plain service
    expect_cause 5 rights "$plain_name ($(id -un), pid $plain, "
    expect_text ctl out \
        "is on the channel, but the policy does not let user $(id -un) own the names"
}

ADoctor.FindsAPolicyForAUserThatDoesNotExist()
{
    mkdir "$processes_dir/system.d"
    "$pelmarctl" -q policy demo --service-user nobody-such --client-user "$(id -un)" \
        >"$processes_dir/system.d/demo.conf"
    end_private_bus
    start_bus_with "<policy context=\"default\"><deny own=\"*\"/></policy>
        <includedir>$processes_dir/system.d</includedir>"
    expect_cause 5 policy "system.d/demo.conf:"
    expect_text ctl out "user 'nobody-such' does not exist: the bus passes over these rules"
    expect_text ctl out "nobody may be the service"
    expect_text ctl out "user '$(id -un)' may be the client"
}

ADoctor.FindsAPolicyThatIsNotWellFormed()
{
    mkdir "$processes_dir/system.d"
    end_private_bus
    start_bus_with "<includedir>$processes_dir/system.d</includedir>"
    echo '<busconfig><policy>' >"$processes_dir/system.d/demo.conf"
    expect_cause 1 policy "system.d/demo.conf:"
}

ADoctor.FindsThatTheDaemonHasNotReadItsPolicy()
{
    end_private_bus
    start_bus_with "$deny_names"
    sed -i 's/<deny own=/<allow own=/' "$processes_dir/bus.conf"
    expect_cause 5 rights \
        "the bus does not let this user be the service, and its files say otherwise"
}

# ---- The members ----------------------------------------------------------------------------

ADoctor.FindsThatNobodyIsThere()
{
    expect_cause 3 object "nobody is on channel demo"
}

ADoctor.FindsThatOnlyOneSideIsThere()
{
    serve
    begin second serve demo
    await second "$started" "on channel demo"
    expect_cause 3 sides "no client is on the channel, only the service"
    expect_text ctl out "ok       sides      2 services"
}

ADoctor.FindsAPartnerOfWhichOnlyTheSynCame()
{
    start_monitor
    start_plain service
    start_actor
    tell_actor "serve demo"
    tell_actor "pulse org.vaska.Pelmar.demo_CLIENT_SYN"
    await_pulse org.vaska.Pelmar.demo_SERVICE_SYN_ACK
    expect_cause 1 object \
        "$shown_actor has taken the channel's object path"
    expect_text ctl out "half-way: $plain_name has seen a pulse of $actor_name"
    expect_text ctl out "only its SYN came"
}

ADoctor.FindsAHandshakeThatIsHalfWay()
{
    # The service's SYN_ACK is lost: somebody has the name.
    start_actor
    tell_actor "acquire org.vaska.Pelmar.demo_SERVICE_SYN_ACK"
    start_plain service
    local service_name=$plain_name
    start_plain client
    await service "${plain_id[service]}" "Cannot own name"
    tell_actor "release org.vaska.Pelmar.demo_SERVICE_SYN_ACK"
    expect_cause 3 handshake \
        "but $plain_name has not seen the answer of $service_name: the stage SYN_ACK is missing"
    expect_text ctl out "ok       names      all six stage names are free"
}

ADoctor.DoesNotSayHalfWayOfAnEndpointThatHasNoMatchRuleLeft()
{
    end_private_bus
    start_bus_with '<limit name="max_match_rules_per_connection">4</limit>'
    serve
    start_client
    begin second connect demo
    await second "$started" "$service_name is ready"
    expect_cause 1 limits "$service_name ($(id -un), pid $service, $pelmarctl serve demo) has 4 of 4"
    expect_text ctl out "has seen $service_name, an endpoint that has no match rule for it"
    expect_no_text ctl out "half-way"
}

ADoctor.FindsTwoThatHaveSeenNothingOfEachOther()
{
    start_actor
    tell_actor "acquire org.vaska.Pelmar.demo_SERVICE_SYN"
    tell_actor "acquire org.vaska.Pelmar.demo_CLIENT_SYN"
    start_plain service
    start_plain client
    expect_cause 1 handshake "have seen nothing of each other: the stage SYN is missing"
    expect_text ctl out "org.vaska.Pelmar.demo_CLIENT_SYN is held by $actor_name"
}

ADoctor.FindsAMemberWithoutItsObject()
{
    start monitor gdbus monitor --system --dest org.vaska.Pelmar.demo_SERVICE_SYN
    await monitor "$started" "The name"
    expect_cause 1 object \
        "is on the channel but has no object at /org/vaska/pelmar/CommunicationChannel/demo"
}

ADoctor.FindsSomethingElseAtTheObjectsPath()
{
    start_actor
    tell_actor "occupy demo"
    expect_cause 1 object \
        "$shown_actor has something else at /org/vaska/pelmar/CommunicationChannel/demo"
}

ADoctor.FindsThatAnotherProgramHasTheObject()
{
    start_actor
    tell_actor "serve demo"
    expect_cause 1 object \
        "$shown_actor has taken the channel's object path but watches none"
}

ADoctor.FindsAMemberThatIsStopped()
{
    serve
    kill -STOP "$service"
    expect_cause 4 object \
        "$service_name ($(id -un), pid $service, $pelmarctl serve demo) does not answer: "
}

ADoctor.FindsAnEndpointThatWaitsForItsFirstPulse()
{
    start_actor
    tell_actor "acquire org.vaska.Pelmar.demo_SERVICE_SYN"
    serve
    expect_cause 1 names "org.vaska.Pelmar.demo_SERVICE_SYN is held by $actor_name"
    expect_text ctl out "or it is an endpoint whose SYN has not shown yet"
}

ADoctor.FindsWhoHoldsAName()
{
    start_actor
    tell_actor "acquire org.vaska.Pelmar.demo_SERVICE_SYN"
    expect_cause 1 names \
        "org.vaska.Pelmar.demo_SERVICE_SYN is held by $actor_name ($(id -un), pid $actor, "
}

# ---- The limits -----------------------------------------------------------------------------

ADoctor.FindsMatchRulesThatAreNearlyExhausted()
{
    end_private_bus
    start_bus_with '<limit name="max_match_rules_per_connection">6</limit>'
    serve
    start_client
    begin second connect demo
    await second "$started" "is ready"
    expect_cause 1 limits \
        "has 5 of 6 match rules; each partner costs a plain channel three and an endpoint one"
}

ADoctor.FindsConnectionsThatAreNearlyExhausted()
{
    end_private_bus
    start_bus_with '<limit name="max_connections_per_user">4</limit>'
    serve
    start_client
    start_actor
    expect_cause 1 limits "$(id -un) has 4 of 4 connections that a user may have"
}

start_private_bus
"$3"
