#!/bin/bash
# usage: traffic-test.sh PELMARCTL PROGRAMS CASE
# Tests of the commands that take part in a channel: serve, connect, send, notify, listen, ping.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
source "$root/tests/pelmarctl/steps.sh"

# A command that is under way, and says with what id.
readonly endless="echo \$\$ >\"$processes_dir/endless\"; echo begun >&2; exec sleep 1000"

await_endless()
{
    await_file "$processes_dir/endless"
    endless_id=$(<"$processes_dir/endless")
}

await_file()  # FILE
{
    timeout "$processes_patience" grep -q . \
        < <(exec tail -q -n +1 -s 0.1 -F --pid=$$ "$1" 2>/dev/null) || fail "$1 was not written"
}

expect_endless_is_gone()
{
    timeout "$processes_patience" tail -s 0.1 --pid="$endless_id" -f /dev/null ||
        fail "the command goes on without pelmarctl"
}

# Starts a service whose input is ${told[service]}.
serve_typed()
{
    start_told service "$pelmarctl" serve demo
    service=$started
    await service "$service" "on channel demo"
}

# The two sides become ready one after the other, and a side sends to those alone that are.
await_listener()
{
    await listener "$listener" "listening to"
    await service "$service" "pelmarctl: :"
}

# ---- serve and connect ----------------------------------------------------------------------

AServingPelmarctl.AnswersWithWhatACommandMakesOfTheMessage()
{
    serve --exec sha256sum
    expect 0 send demo -f "$root/README.md"
    expect_output "$(sha256sum <"$root/README.md")"$'\n'
    expect 0 send demo -m ""
    expect_output "$(sha256sum </dev/null)"$'\n'
}

AServingPelmarctl.PassesLargeBinaryMessagesThroughACommand()
{
    head -c 3000000 /dev/urandom >"$processes_dir/data"
    serve --exec cat
    expect 0 send demo -f "$processes_dir/data"
    cmp "$processes_dir/data" "$processes_dir/ctl.out"
}

AServingPelmarctl.AnswersForACommandThatReadsNothing()
{
    head -c 3000000 /dev/zero >"$processes_dir/data"
    serve --exec 'echo enough'
    expect 0 send demo -f "$processes_dir/data"
    expect_output $'enough\n'
}

AServingPelmarctl.FailsTheCallerWhenItsCommandFails()
{
    serve --exec 'echo out; echo first >&2; echo second >&2; exit 3'
    expect 7 send demo -m text
    expect_error "$service_name: the partner answered with an error: exit status 3: first"
    expect_no_text ctl err second
    expect_output ""
    await service "$service" "failed a message of 4 bytes: exit status 3: first"
}

AServingPelmarctl.FailsTheCallerWhenItsCommandIsKilled()
{
    # shellcheck disable=SC2016
    serve --exec 'kill -KILL $$'
    expect 7 send demo -m text
    expect_error "$service_name: the partner answered with an error: ended by signal 9"
}

AServingPelmarctl.EndsACommandThatTakesTooLong()
{
    serve --exec "$endless" --exec-timeout 0.2
    expect 7 send demo -m text
    expect_error \
        "$service_name: the partner answered with an error: the command took longer than 200 ms"
    await_endless
    expect_endless_is_gone
}

AServingPelmarctl.EndsACommandThatWritesTooMuch()
{
    serve --exec yes --exec-max 1000
    expect 7 send demo -m text
    expect_error \
        "$service_name: the partner answered with an error: the command wrote more than 1000 bytes"
}

AServingPelmarctl.TakesExactlyAsMuchAsItsLimit()
{
    serve --exec cat --exec-max 4
    expect 0 send demo -m 1234
    expect_output 1234
    expect 7 send demo -m 12345
}

AServingPelmarctl.EndsWhatACommandLeavesBehind()
{
    serve --exec "(exec >&- 2>&-; $endless) & cat"
    expect 0 send demo -m text
    expect_output text
    # It is ended before it can say its id, or after.
    if [[ -s $processes_dir/endless ]]; then
        await_endless
        expect_endless_is_gone
    fi
}

AServingPelmarctl.RunsSeveralCommandsAtTheSameTime()
{
    # Each waits until the other has come.
    mkfifo "$processes_dir/meeting"
    serve --exec "read -r who; if [ \"\$who\" = one ]; then cat '$processes_dir/meeting'; else
        echo met >'$processes_dir/meeting'; fi"
    begin one send demo -m one
    one=$started
    expect 0 send demo -m two
    expect_end_of one "$one" 0
    expect_text one out met
}

AServingPelmarctl.EndsItsCommandsOnSIGINT()
{
    serve --exec "$endless"
    begin sender send demo -m text
    await_endless
    kill -INT "$service"
    expect_end_of service "$service" 130
    expect_endless_is_gone
    expect_end_of sender "$started" 3
}

AServingPelmarctl.EndsItsCommandsWhenTheBusDies()
{
    serve --exec "$endless"
    begin sender send demo -m text
    await_endless
    kill -KILL "$bus"
    expect_end_of service "$service" 6
    expect_text service err "pelmarctl: the connection to the bus was lost"
    expect_endless_is_gone
    expect_end_of sender "$started" 6
}

AServingPelmarctl.EndsOnSIGTERM()
{
    serve
    kill -TERM "$service"
    expect_end_of service "$service" 143
}

AServingPelmarctl.EndsAfterItsTimeout()
{
    expect 0 --timeout 1 serve demo
}

AServingPelmarctl.EchoesMessages()
{
    serve --echo
    expect 0 send demo -m 'there and back'
    expect_output 'there and back'
}

AServingPelmarctl.PrintsMessagesAndNotificationsInTheWantedFormat()
{
    serve --format line
    expect 0 send demo -m message
    expect_output ""
    expect 0 notify demo -m notification
    await service "$service" notification
    [[ $(<"$processes_dir/service.out") == $'message\nnotification' ]] ||
        fail "it printed otherwise"
}

AServingPelmarctl.TellsEventsAsJson()
{
    serve --json --exec 'grep -q good && printf %s fine'
    expect 0 send demo -m good
    expect 7 send demo -m bad
    expect 0 notify demo --hex -m '00 ff'
    await service "$service" '"base64":"AP8="'
    expect_json service 'map(select(.event == "ready")) | length == 3'
    expect_json service 'any(.[]; .event == "executed" and .size == 4 and .reply_size == 4)'
    expect_json service 'any(.[]; .event == "executed" and .error == "exit status 1")'
    expect_json service 'any(.[]; .event == "notification" and .size == 2 and (has("text") | not))'
}

AServingPelmarctl.SendsTypedLinesAsNotifications()
{
    serve_typed
    echo nobody hears this >&"${told[service]}"
    await service "$service" "'nobody hears this' was not sent: no partner is ready"
    begin listener listen demo -n 2 --format line
    listener=$started
    await_listener
    printf 'one\ntwo\n' >&"${told[service]}"
    expect_end_of listener "$listener" 0
    [[ $(<"$processes_dir/listener.out") == $'one\ntwo' ]] || fail "it heard otherwise"
}

AServingPelmarctl.SaysWhomATypedLineDidNotReach()
{
    serve_typed
    begin listener listen demo --format line
    listener=$started
    await_listener
    kill -STOP "$listener"
    # More than waits for a partner that does not read.
    for _ in {1..100}; do
        printf '%0100000d\n' 0
    done >&"${told[service]}"
    await service "$service" "0' was not sent to :"
    kill -CONT "$listener"
    echo last >&"${told[service]}"
    await listener "$listener" last
}

AServingPelmarctl.ReportsNamesThatThePolicyRefuses()
{
    end_private_bus
    start_bus_with "$deny_names"
    expect 5 serve demo
    expect_error "the bus does not let this process own org.vaska.Pelmar.demo_SERVICE_SYN"
}

AConnectedPelmarctl.AnswersTheService()
{
    begin client connect demo --echo
    expect 0 send demo --role service -m 'the other way'
    expect_output 'the other way'
}

AConnectedPelmarctl.FindsAServiceThatStartsLater()
{
    begin client connect demo
    client=$started
    await client "$client" "on channel demo as client"
    serve
    await client "$client" "$service_name is ready"
    kill -KILL "$service"
    await client "$client" "$service_name is lost"
}

# ---- send -----------------------------------------------------------------------------------

ASendingPelmarctl.TakesTheMessageFromWhereItIsTold()
{
    serve --echo
    printf 'a file' >"$processes_dir/data"
    expect 0 send demo -f "$processes_dir/data"
    expect_output 'a file'
    expect 0 send demo <<<'standard input'
    expect_output $'standard input\n'
    expect 0 send demo --hex -m '68 65 6C 6c6f'
    expect_output hello
}

ASendingPelmarctl.ReportsWhatItCannotSend()
{
    expect 1 send demo -f "$processes_dir/none"
    expect_error "cannot read '$processes_dir/none': No such file or directory"
    expect 1 send demo -f "$processes_dir"
    expect_error "cannot read '$processes_dir': Is a directory"
    expect 1 send demo <&-
    expect_error "cannot read standard input: Bad file descriptor"
    expect 2 send demo --hex -m '6g'
    expect_error "--hex: 'g' is no hexadecimal digit"
    expect 2 send demo --hex -m '123'
    expect_error "--hex: the number of digits is odd: a byte has two"
    truncate -s 100G "$processes_dir/data"
    expect 8 send demo -f "$processes_dir/data"
    expect_error "the message has more than 33488896 bytes, which is what the bus takes"
}

ASendingPelmarctl.SendsTheLargestMessage()
{
    serve --exec 'wc -c'
    truncate -s 33488896 "$processes_dir/data"
    expect 0 send demo -f "$processes_dir/data"
    expect_output $'33488896\n'
    truncate -s 33488897 "$processes_dir/data"
    expect 8 send demo -f "$processes_dir/data"
}

ASendingPelmarctl.WritesTheReplyToAFile()
{
    serve --echo
    expect 0 send demo -m reply -o "$processes_dir/reply"
    [[ $(<"$processes_dir/reply") == reply ]] || fail "the file is not the reply"
    expect_output ""
    expect 0 send demo -m anything -o /dev/null
    expect 1 send demo -m text -o "$processes_dir/none/reply"
    expect_error "cannot write '$processes_dir/none/reply': No such file or directory"
}

ASendingPelmarctl.LeavesTheFileAsItWasWhenItFails()
{
    echo old >"$processes_dir/reply"
    serve --exec false
    expect 7 send demo -m text -o "$processes_dir/reply"
    [[ $(<"$processes_dir/reply") == old ]] || fail "the file is changed"
    [[ $(echo "$processes_dir"/reply*) == "$processes_dir/reply" ]] || fail "it left a file behind"
}

ASendingPelmarctl.ShowsAHexDumpOnATerminal()
{
    serve --echo
    script -qec "'$pelmarctl' send demo -m 'hello, terminal'" /dev/null |
        tr -d '\r' >"$processes_dir/terminal"
    printf 'hello, terminal' | hexdump -C | diff - "$processes_dir/terminal" ||
        fail "it is not what hexdump shows"
    expect 0 send demo -m $'\1\2' --format hex
    printf '\1\2' | hexdump -C | cmp - "$processes_dir/ctl.out"
}

ASendingPelmarctl.ChoosesItsPartner()
{
    local first
    serve --exec 'echo first'
    first=$service_name
    begin second serve demo --exec 'echo second'
    await second "$started" "on channel demo"
    expect 2 send demo -m text
    expect_error "2 partners are ready: "
    expect_text ctl err "choose one with --to, or use --all"
    expect 0 send demo -m text --to "$first"
    expect_output $'first\n'
    expect 0 send demo -m text --all
    [[ $(sort "$processes_dir/ctl.out") == $'first\nsecond' ]] || fail "not all have answered"
    expect 3 send demo -m text --to :7.7 --timeout 1
    expect_error ":7.7 is no partner on channel demo within 1 second; ready: "
}

ASendingPelmarctl.TellsTheReplyAsJson()
{
    serve --exec 'printf "\377\0"'
    expect 0 send demo -m text --json
    expect_json ctl "length == 1 and .[0].partner == \"$service_name\" and .[0].status == \"ok\"
        and .[0].size == 2 and .[0].base64 == \"/wA=\""
}

ASendingPelmarctl.TellsAFailureAsJson()
{
    serve --exec false
    expect 7 send demo -m text --json
    expect_json ctl '.[0].error == "exit status 1" and .[0].partner != ""'
}

ASendingPelmarctl.GivesUpWhenNoPartnerComes()
{
    expect 3 send demo -m text --timeout 1
    expect_error "no service on channel demo within 1 second (pelmarctl doctor says why)"
}

ASendingPelmarctl.GivesUpWhenNoReplyComes()
{
    serve --exec "$endless"
    expect 4 send demo -m text --timeout 1
    expect_error "$service_name: no answer within the timeout"
}

ASendingPelmarctl.ReportsNamesThatThePolicyRefuses()
{
    end_private_bus
    start_bus_with "$deny_names"
    expect 5 send demo -m text
    expect_error "the bus does not let this process own org.vaska.Pelmar.demo_CLIENT_SYN"
}

ASendingPelmarctl.ReportsACallThatThePolicyRefuses()
{
    end_private_bus
    start_bus_with '<policy context="mandatory"><deny send_member="Send"
        send_interface="org.vaska.pelmar.DbusCommunication" send_type="method_call"/></policy>'
    export PELMAR_DIRECT=0  # past the bus no policy refuses it
    serve --echo
    expect 5 send demo -m text
    expect_error "$service_name: refused by the bus's policy"
}

ASendingPelmarctl.ReportsAPartnerThatIsKilledMidway()
{
    serve --exec "$endless"
    begin sender send demo -m text
    await_endless
    kill -KILL "$service"
    expect_end_of sender "$started" 3
    expect_text sender err "$service_name: the partner is lost"
}

ASendingPelmarctl.ReportsABusThatDiesWhileItWaits()
{
    start_monitor
    begin sender send demo -m text
    await_pulse org.vaska.Pelmar.demo_CLIENT_SYN
    kill -KILL "$bus"
    expect_end_of sender "$started" 6
    expect_text sender err "pelmarctl: the connection to the bus was lost"
}

ASendingPelmarctl.EndsOnSIGINTWhileItWaits()
{
    start_monitor
    begin sender send demo -m text
    await_pulse org.vaska.Pelmar.demo_CLIENT_SYN
    kill -INT "$started"
    expect_end_of sender "$started" 130
}

# ---- notify and listen ----------------------------------------------------------------------

ANotifyingPelmarctl.IsHeardByEveryPartner()
{
    begin one listen demo -n 1
    one=$started
    begin two listen demo -n 1
    two=$started
    await one "$one" "on channel demo"
    await two "$two" "on channel demo"
    expect 0 notify demo --role service -f "$root/LICENSE" --all
    expect_end_of one "$one" 0
    expect_end_of two "$two" 0
    cmp "$root/LICENSE" "$processes_dir/one.out"
    cmp "$root/LICENSE" "$processes_dir/two.out"
}

ANotifyingPelmarctl.TellsWhomItToldAsJson()
{
    serve
    expect 0 notify demo -m text --json
    expect_json ctl "length == 1 and .[0].partner == \"$service_name\" and .[0].size == 4"
    expect 3 notify demo --role service -m text --timeout 1
}

listen()  # ARGUMENT...
{
    serve_typed
    begin listener listen demo "$@"
    listener=$started
    await_listener
}

AListeningPelmarctl.PrintsNothingButTheBytes()
{
    listen -n 2
    printf 'one\ntwo\n' >&"${told[service]}"
    expect_end_of listener "$listener" 0
    [[ $(<"$processes_dir/listener.out") == onetwo ]] || fail "it printed otherwise"
}

AListeningPelmarctl.PrintsHexDumps()
{
    listen -n 1 --format hex
    echo text >&"${told[service]}"
    expect_end_of listener "$listener" 0
    printf text | hexdump -C | cmp - "$processes_dir/listener.out"
}

AListeningPelmarctl.TellsNotificationsAsJson()
{
    listen -n 1 --json
    echo text >&"${told[service]}"
    expect_end_of listener "$listener" 0
    expect_json listener 'length == 1 and .[0] == {schema: 1, event: "notification", size: 4,
        base64: "dGV4dA==", text: "text"}'
}

AListeningPelmarctl.ReportsThatTooFewCame()
{
    expect 4 listen demo -n 2 --timeout 1
    expect_error "only 0 of 2 notifications came within the timeout"
    expect 0 listen demo --timeout 1
}

AListeningPelmarctl.KeepsWhatItHasPrintedOnSIGINT()
{
    listen --format line
    echo text >&"${told[service]}"
    await listener "$listener" text
    kill -INT "$listener"
    expect_end_of listener "$listener" 130
    [[ $(<"$processes_dir/listener.out") == text ]] || fail "what it printed is not whole"
}

AListeningPelmarctl.ReportsABusThatDies()
{
    listen
    kill -KILL "$bus"
    expect_end_of listener "$listener" 6
    expect_end_of service "$service" 6
}

AListeningPelmarctl.EndsWhenNobodyReadsItsOutput()
{
    local status=0
    serve_typed
    : >"$processes_dir/listener.out"
    : >"$processes_dir/listener.err"
    {
        "$pelmarctl" listen demo --format line 2>>"$processes_dir/listener.err" || status=$?
        echo "$status" >"$processes_dir/status"
    } | head -n 1 >"$processes_dir/head.out" &
    listener=$!
    await_listener
    echo one >&"${told[service]}"
    await_file "$processes_dir/head.out"
    echo two >&"${told[service]}"
    await_file "$processes_dir/status"
    (($(<"$processes_dir/status") == 1)) || fail "it ended with status $(<"$processes_dir/status")"
    expect_text listener err "cannot write to standard output: Broken pipe"
}

# ---- ping -----------------------------------------------------------------------------------

APingingPelmarctl.ShowsEachRoundTripAndTheStatistics()
{
    serve --echo
    expect 0 ping demo -c 3 -i 0 -s 1000
    (($(grep -cE "^1000 bytes from $service_name: seq=[123] time=[0-9]+\.[0-9]{3} ms$" \
        "$processes_dir/ctl.out") == 3)) || fail "there are not 3 round trips"
    expect_text ctl out "--- demo, $service_name: 3 sent, 0 lost"
    grep -qE "^--- min [0-9.]+ ms, avg [0-9.]+ ms, p99 [0-9.]+ ms, max [0-9.]+ ms$" \
        "$processes_dir/ctl.out" || fail "there are no statistics"
}

APingingPelmarctl.TellsTheSameAsJson()
{
    serve --echo
    expect 0 ping demo -c 4 -i 0 --json
    expect_json ctl "length == 5 and (.[:4] | map(.sequence) == [1, 2, 3, 4]) and
        (.[:4] | all(.[]; .status == \"ok\" and .time_ms > 0 and .reply_size == 64)) and
        (.[4] | .sent == 4 and .lost == 0 and .partner == \"$service_name\" and
            .min_ms <= .avg_ms and .avg_ms <= .max_ms and .p99_ms <= .max_ms)"
}

APingingPelmarctl.CountsWhatIsLost()
{
    serve --exec 'echo no >&2; exit 1'
    expect 7 ping demo -c 2 -i 0
    expect_text ctl out "$service_name: seq=1 exit status 1: no"
    expect_text ctl out "2 sent, 2 lost"
    expect_no_text ctl out "min"
}

APingingPelmarctl.ReportsAPartnerThatDoesNotAnswer()
{
    serve --exec "$endless"
    expect 4 ping demo -c 1 --timeout 1
    expect_text ctl out "1 sent, 1 lost"
}

APingingPelmarctl.ShowsTheStatisticsWhenItIsInterrupted()
{
    serve --echo
    begin pinger ping demo -i 1000
    await pinger "$started" "seq=1"
    kill -INT "$started"
    expect_end_of pinger "$started" 130
    expect_text pinger out "1 sent, 0 lost"
}

APingingPelmarctl.ShowsTheStatisticsWhenTheBusDies()
{
    serve --exec "$endless"
    begin pinger ping demo -i 0
    await_endless
    kill -KILL "$bus"
    expect_end_of pinger "$started" 6
    expect_text pinger out "1 sent, 1 lost"
    expect_text pinger err "pelmarctl: the connection to the bus was lost"
}

APingingPelmarctl.EndsWhenItsPartnerIsLost()
{
    serve --exec "$endless"
    begin pinger ping demo -i 0
    await_endless
    kill -KILL "$service"
    expect_end_of pinger "$started" 3
    expect_text pinger out "1 sent, 1 lost"
}

start_private_bus
"$3"
