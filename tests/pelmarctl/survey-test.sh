#!/bin/bash
# usage: survey-test.sh PELMARCTL PROGRAMS CASE
# Tests of the commands that look at the bus: list and watch.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
source "$root/tests/pelmarctl/steps.sh"

watch()  # ARGUMENT...
{
    begin watcher watch "$@"
    watcher=$started
    await watcher "$watcher" "watching"
}

# ---- list -----------------------------------------------------------------------------------

AListingPelmarctl.ShowsWhoIsOnWhichChannel()
{
    serve --echo
    start_client
    begin other serve other
    await other "$started" "on channel other"
    expect 0 list
    expect_text ctl out "CHANNEL  NAME  ROLE     USER"
    local who
    who=$(id -un)
    grep -qE "^demo +$service_name +service +$who +$service +[^ ]+ +[^ ]+ +$pelmarctl serve demo --echo$" \
        "$processes_dir/ctl.out" || fail "the service is not in it"
    grep -qE "^demo +:1\.[0-9]+ +client +$who +$client " "$processes_dir/ctl.out" ||
        fail "the client is not in it"
    expect 0 list --json
    expect_json ctl "length == 3 and (.[0] | .channel == \"demo\" and .name == \"$service_name\" and
        .uid == $(id -u) and .pid == $service and .role == \"service\") and
        .[2].channel == \"other\" and .[2].pid == $started"
    expect 0 list other --json
    expect_json ctl 'length == 1 and .[0].channel == "other"'
}

AListingPelmarctl.SeesAChannelThatIsNoEndpoint()
{
    start_told peer "$programs/peer-service" demo
    await peer "$started" "name :"
    expect 0 list demo --json
    expect_json ctl "length == 1 and .[0].pid == $started and .[0].role == \"service\""
}

AListingPelmarctl.SaysWhenNobodyIsThere()
{
    expect 0 list
    expect_output ""
    expect_error "nobody has a channel's object"
    expect 3 list demo
    expect_error "nobody has the object of channel demo"
}

AListingPelmarctl.PassesOverWhatIsNoChannel()
{
    start_actor
    tell_actor "occupy demo"
    expect 3 list demo
    tell_actor "serve other"
    expect 0 list --json
    expect_json ctl "length == 1 and .[0].channel == \"other\" and .[0].name == \"$actor_name\" and
        .[0].role == null"
}

AListingPelmarctl.IsNotHeldUpByAProcessThatIsStopped()
{
    serve
    start_actor
    kill -STOP "$actor"
    expect 0 list demo
    kill -CONT "$actor"
    expect_text ctl out "$service_name"
}

AListingPelmarctl.ShowsAMemberThatIsStopped()
{
    serve
    kill -STOP "$service"
    expect 0 list demo --json
    expect_json ctl "length == 1 and .[0].name == \"$service_name\" and .[0].role == \"service\""
    expect_error "$service_name does not answer: it is stopped, or its main loop does not run"
}

AListingPelmarctl.FindsTheChannelsOfItsPolicyWhereItMayNotIntrospect()
{
    end_private_bus
    start_bus_with '<policy context="mandatory">
        <deny send_interface="org.freedesktop.DBus.Introspectable" send_type="method_call"/>
        <deny send_interface="org.freedesktop.DBus.Debug.Stats" send_type="method_call"/>
        <allow own="org.vaska.Pelmar.known_SERVICE_SYN"/></policy>'
    serve
    begin known serve known
    await known "$started" "on channel known"
    expect 0 list
    expect_error "the bus's policy does not let this user ask 2 connections in general"
    expect_text ctl out "known"
    expect_no_text ctl out "$service_name"
    expect 0 list demo
    expect_text ctl out "$service_name"
}

AListingPelmarctl.ShowsMembersThatItMayNotAskWhereTheBusTellsOfThem()
{
    end_private_bus
    start_bus_with '<policy context="mandatory">
        <deny send_interface="org.freedesktop.DBus.Introspectable" send_type="method_call"/>
        <deny send_interface="org.freedesktop.DBus.Properties" send_type="method_call"/></policy>'
    serve
    expect 0 list --json
    expect_json ctl "length == 1 and .[0].channel == \"demo\" and .[0].pid == $service and
        .[0].role == \"service\""
    expect 3 doctor demo
    expect_text ctl out "unknown  object     $service_name "
}

AListingPelmarctl.BelievesNobodyWhoMakesUpPartners()
{
    start_actor
    tell_actor "direct demo"
    tell_actor "serve other"
    expect 0 list --json
    expect_json ctl 'length == 2 and .[0].direct == [":1.1000"] and .[1].direct == null'
    expect 0 list
    grep -qE "^demo +$actor_name +- +[^ ]+ +$actor +1 " "$processes_dir/ctl.out" ||
        fail "it does not count the one that may be a partner"
    grep -qE "^other +$actor_name +- +[^ ]+ +$actor +- " "$processes_dir/ctl.out" ||
        fail "it counts partners of one that does not tell"
}

AListingPelmarctl.ShowsWhoGoesPastTheBus()
{
    watch
    serve
    start_client
    await watcher "$watcher" "goes past the bus with $service_name"
    expect 0 list demo --json
    expect_json ctl "length == 2 and all(.[]; .direct | length == 1) and
        .[1].direct == [\"$service_name\"]"
    expect 0 doctor demo
    expect_text ctl out "have found each other, and send past the bus"
}

# ---- watch ----------------------------------------------------------------------------------

AWatchingPelmarctl.ShowsAHandshakeStageByStage()
{
    watch
    serve
    start_client
    await watcher "$watcher" "goes past the bus"
    kill -KILL "$client"
    await watcher "$watcher" left
    local stages
    stages=$(awk '{ for (i = 2; i <= NF; i++) if ($i == "service" || $i == "client")
        printf "%s %s,", $i, $(i + 1) }' < <(grep -v 'has answered' "$processes_dir/watcher.out"))
    [[ $stages == "service SYN,client SYN,service SYN_ACK,client ACK,client direct,client left," ]] ||
        fail "it shows $stages"
    grep -qE "^[0-9:]{8}\.[0-9]{3} +\+[0-9.]+ +demo +$service_name +service +SYN_ACK +answers :1" \
        "$processes_dir/watcher.out" || fail "the line of the SYN_ACK looks otherwise"
    kill -INT "$watcher"
    expect_end_of watcher "$watcher" 130
}

AWatchingPelmarctl.TellsTheSameAsJson()
{
    watch --json
    serve
    start_client
    await watcher "$watcher" '"stage":"ACK"'
    # On a slow machine the service's SYN may be shown as unanswered before the client is there.
    expect_json watcher 'map(select(.event == "pulse")) | map([.role, .stage]) == [
            ["service", "SYN"], ["client", "SYN"], ["service", "SYN_ACK"], ["client", "ACK"]]'
    expect_json watcher 'map(select(.event == "pulse")) | all(.[1:][]; .gap_ms > 0)
        and all(.[]; .channel == "demo" and (.time | test("^[0-9-]{10}T[0-9:]{8}\\.[0-9]{3}$")))'
}

AWatchingPelmarctl.ShowsTheWantedChannelAlone()
{
    watch demo
    start_actor
    tell_actor "pulse org.vaska.Pelmar.other_CLIENT_SYN"
    tell_actor "pulse org.vaska.Pelmar.demo_CLIENT_SYN"
    await watcher "$watcher" "demo "
    expect_no_text watcher out other
}

AWatchingPelmarctl.ShowsWhatIsNotAnswered()
{
    watch
    start_actor
    tell_actor "pulse org.vaska.Pelmar.lonely_CLIENT_SYN"
    tell_actor "pulse org.vaska.Pelmar.half_SERVICE_SYN_ACK"
    await watcher "$watcher" "no service has answered"
    await watcher "$watcher" "half-finished: no client has pulsed ACK"
}

AWatchingPelmarctl.ShowsWhoHoldsAName()
{
    start_actor
    tell_actor "acquire org.vaska.Pelmar.before_CLIENT_SYN"
    watch
    tell_actor "acquire org.vaska.Pelmar.after_SERVICE_ACK"
    await watcher "$watcher" "before "
    await watcher "$watcher" "after "
    (($(grep -c "$actor_name .*holds the name: nobody else can pulse it" \
        "$processes_dir/watcher.out") == 2)) || fail "it does not say so"
}

AWatchingPelmarctl.ShowsWhatIsPulsedAgain()
{
    watch
    start_actor
    tell_actor "pulse org.vaska.Pelmar.demo_CLIENT_SYN"
    tell_actor "pulse org.vaska.Pelmar.demo_CLIENT_SYN"
    await watcher "$watcher" "again, after "
}

AWatchingPelmarctl.ReportsABusThatDies()
{
    watch
    kill -KILL "$bus"
    expect_end_of watcher "$watcher" 6
    expect 0 --help
}

AWatchingPelmarctl.EndsAfterItsTimeout()
{
    expect 0 watch --timeout 1
}

AWatchingPelmarctl.SaysWhoGoesPastTheBus()
{
    watch
    serve
    start_client
    await watcher "$watcher" "goes past the bus with $service_name: what they send is not seen here"
    grep -qE "^[0-9:]{8}\.[0-9]{3} +demo +:1\.[0-9]+ +client +direct +goes past the bus with" \
        "$processes_dir/watcher.out" || fail "the line looks otherwise"
}

AWatchingPelmarctl.SaysWhoGoesPastTheBusAsJson()
{
    watch demo --json
    start_actor
    serve
    tell_actor "switch other $service_name"
    tell_actor "switch demo $service_name"
    await watcher "$watcher" '"event":"direct"'
    expect_json watcher "map(select(.event == \"direct\")) | length == 1 and
        (.[0] | .channel == \"demo\" and .name == \"$actor_name\" and .role == \"client\")"
}

AWatchingPelmarctl.SaysNothingOfPathsThatAreForbidden()
{
    export PELMAR_DIRECT=0
    watch
    serve
    start_client
    await watcher "$watcher" "client   ACK"
    expect 0 send demo -m hello --role client
    expect_no_text watcher out direct
}

AWatchingPelmarctl.SaysWhenItMayNotSeeWhoGoesPastTheBus()
{
    end_private_bus
    start_bus_with '<policy context="mandatory">
        <deny send_interface="org.freedesktop.DBus.Monitoring" send_type="method_call"/></policy>'
    watch
    serve
    start_client
    await watcher "$watcher" "client   ACK"
    expect_text watcher err "the bus does not let this user see which partners go past it"
}

AWatchingPelmarctl.SaysInItsHelpHowToSeeTraffic()
{
    expect 0 watch --help
    expect_text ctl out "PELMAR_DIRECT=0 in the environment"
}

start_private_bus
"$3"
