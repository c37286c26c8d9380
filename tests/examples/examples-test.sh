#!/bin/bash
# usage: examples-test.sh DIRECTORY CASE
# Tests of the example programs in DIRECTORY as their users see them, each on a bus of its own. A
# case is a function named Subject.Sentence; CMakeLists.txt registers them all.
set -euo pipefail
programs=$1
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
source "$root/scripts/processes.sh"
source "$root/tests/support/steps.sh"
export LC_ALL=C.UTF-8

# ---- Steps ----------------------------------------------------------------------------------

serve()
{
    start service "$programs/digest-service"
    service=$started
    await service "$service" "listening on channel digest"
}

start_client()
{
    start client "$programs/digest-client" "$@"
    client=$started
}

# Its announcement is over before anybody could see it.
start_lonely_client()
{
    start_monitor
    start_client "$root/README.md"
    await_pulse org.vaska.Pelmar.digest_CLIENT_SYN
}

start_greeter()
{
    start_monitor
    start greeter "$programs/minimal-service"
    await_pulse org.vaska.Pelmar.greeter_SERVICE_SYN
}

# A client that is not done before the test is: its file has 100 GiB, all of them a hole.
start_endless_client()
{
    truncate -s 100G "$processes_dir/endless"
    start_client "$@" "$processes_dir/endless"
    await client "$client" "notification: 65536 bytes in 1 message"
}

expect_failure()  # NAME ID STATUS TEXT
{
    expect_end_of "$1" "$2" "$3"
    expect_text "$1" err "digest-$1: $4"
}

# The digests that the service says it computed have to be those of sha256sum.
expect_file_of_size_to_arrive()  # SIZE MESSAGES
{
    local file=$processes_dir/file
    head -c "$1" /dev/urandom >"$file"
    serve
    start_client "$file"
    expect_end_of client "$client" 0
    expect_text client out "$file: $1 byte"
    expect_text client out "every answer agrees"

    sed -n 's/^message .* //p' "$processes_dir/service.out" >"$processes_dir/received"
    split -b 65536 --filter 'sha256sum | cut -d " " -f 1' "$file" >"$processes_dir/sent"
    [[ -s $file ]] || sha256sum <"$file" | cut -d ' ' -f 1 >"$processes_dir/sent"
    cmp "$processes_dir/sent" "$processes_dir/received" || fail "the service received other bytes"
    (($(wc -l <"$processes_dir/received") == $2)) || fail "there were not $2 messages"
    (($(grep -c '^notification: ' "$processes_dir/client.out") == $2)) ||
        fail "there were not $2 notifications"
}

# ---- The client -----------------------------------------------------------------------------

ADigestClient.SendsAnEmptyFileAsOneMessage()
{
    expect_file_of_size_to_arrive 0 1
}

ADigestClient.SendsASingleByte()
{
    expect_file_of_size_to_arrive 1 1
}

ADigestClient.SendsExactlyOneFullMessage()
{
    expect_file_of_size_to_arrive 65536 1
}

ADigestClient.SendsABinaryFileInSeveralMessages()
{
    expect_file_of_size_to_arrive 1048577 17
}

ADigestClient.FindsAServiceThatStartsLater()
{
    start_lonely_client
    serve
    expect_end_of client "$client" 0
    expect_text client out "every answer agrees"
}

ADigestClient.DrawsAProgressBarOnATerminal()
{
    serve
    start client script -qec "'$programs/digest-client' '$root/README.md'" /dev/null
    expect_end_of client "$started" 0
    expect_text client out "] 100 %"
}

ADigestClient.DrawsNoProgressBarIntoAFile()
{
    serve
    start_client "$root/README.md"
    expect_end_of client "$client" 0
    ! grep -q '%' "$processes_dir/client.out" || fail "there is a progress bar"
}

ADigestClient.UsesTheChannelThatIsNamed()
{
    start service "$programs/digest-service" --channel other_1
    await service "$started" "listening on channel other_1"
    start_client --channel other_1 "$root/README.md"
    expect_end_of client "$client" 0
    expect_text service out "message 1: "
}

ADigestClient.ReportsAWrongAnswer()
{
    start_greeter
    start_client --channel greeter "$root/LICENSE"
    expect_failure client "$client" 1 "message 1: the answer is 'Hello, MIT License"
}

ADigestClient.ReportsAMissingFile()
{
    start_client "$processes_dir/none"
    expect_failure client "$client" 3 "cannot read '$processes_dir/none': "
    expect_text client err "No such file or directory"
}

ADigestClient.ReportsADirectory()
{
    start_client "$processes_dir"
    expect_failure client "$client" 3 "cannot read '$processes_dir': it is not a regular file"
}

ADigestClient.ReportsAWrongCommandLine()
{
    start_client
    expect_failure client "$client" 2 "FILE is missing (see --help)"
    start_client a b
    expect_failure client "$client" 2 "only one FILE is sent (see --help)"
    start_client --nonsense a
    expect_failure client "$client" 2 "Unknown option --nonsense (see --help)"
    start_client --timeout 0 a
    expect_failure client "$client" 2 "a timeout of 0 seconds is not possible: use 1 to 86400"
    start_client --channel 9lives a
    expect_failure client "$client" 2 "'9lives' cannot be a channel's name"
}

ADigestClient.ShowsItsStatusesAsHelp()
{
    start_client --help
    expect_end_of client "$client" 0
    expect_text client out "digest-client [OPTION…] FILE"
    expect_text client out "6  the partner was lost midway"
}

ADigestClient.ReportsAnUnreachableBus()
{
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$processes_dir/no-bus
    start_client "$root/README.md"
    expect_failure client "$client" 4 "cannot reach the system bus: "
}

ADigestClient.GivesUpWhenNoPartnerComes()
{
    start_client --timeout 1 "$root/README.md"
    expect_failure client "$client" 5 "no partner on channel digest within 1 second"
}

ADigestClient.GivesUpWhenAnAnswerDoesNotCome()
{
    serve
    start_endless_client --timeout 1
    kill -STOP "$service"
    expect_failure client "$client" 5 "no answer to message "
}

ADigestClient.ReportsAPartnerThatIsKilledMidway()
{
    serve
    start_endless_client
    kill -KILL "$service"
    expect_failure client "$client" 6 "partner :1.0 was lost midway, at message "
}

ADigestClient.ReportsABusThatIsLostMidway()
{
    serve
    start_endless_client
    kill -KILL "$bus"
    expect_failure client "$client" 4 "the connection to the bus was lost"
}

ADigestClient.EndsOnSIGINT()
{
    serve
    start_endless_client
    kill -INT "$client"
    expect_end_of client "$client" 130
    await service "$service" "is lost"
}

ADigestClient.EndsOnSIGTERM()
{
    serve
    start_endless_client
    kill -TERM "$client"
    expect_end_of client "$client" 143
    await service "$service" "is lost"
}

ADigestClient.EndsOnSIGTERMWhileItWaitsForAPartner()
{
    start_lonely_client
    kill -TERM "$client"
    expect_end_of client "$client" 143
}

# ---- The service ----------------------------------------------------------------------------

ADigestService.CountsOverAllItsPartners()
{
    serve
    start_client "$root/LICENSE"
    expect_end_of client "$client" 0
    await service "$service" "partner :1.1 is lost"
    start_client "$root/LICENSE"
    expect_end_of client "$client" 0
    expect_text client out "notification: $((2 * $(wc -c <"$root/LICENSE"))) bytes in 2 messages"
}

ADigestService.GoesOnAfterAKilledPartner()
{
    serve
    start_endless_client
    kill -KILL "$client"
    await service "$service" "partner :1.1 is lost"
    start_client "$root/README.md"
    expect_end_of client "$client" 0
}

ADigestService.ReportsAWrongCommandLine()
{
    start service "$programs/digest-service" surplus
    expect_failure service "$started" 2 "unexpected argument 'surplus' (see --help)"
}

ADigestService.ReportsAnUnreachableBus()
{
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$processes_dir/no-bus
    start service "$programs/digest-service"
    expect_failure service "$started" 4 "cannot reach the system bus: "
}

ADigestService.ReportsALostBus()
{
    serve
    kill -KILL "$bus"
    expect_failure service "$service" 4 "the connection to the bus was lost"
}

ADigestService.EndsOnSIGINT()
{
    serve
    kill -INT "$service"
    expect_end_of service "$service" 0
}

ADigestService.EndsOnSIGTERMMidway()
{
    serve
    start_endless_client
    kill -TERM "$service"
    expect_end_of service "$service" 0
    expect_failure client "$client" 6 "partner :1.0 was lost midway"
}

# ---- The minimal service --------------------------------------------------------------------

TheMinimalService.IsTheReadmesProgram()
{
    # shellcheck disable=SC2016
    sed -n '/^## A service$/,/^## /p' "$root/README.md" |
        sed -n '/^```cpp$/,/^```$/p' | sed '/^```/d' |
        diff "$root/examples/minimal-service.cpp" - ||
        fail "README.md shows another program than examples/minimal-service.cpp"
}

TheMinimalService.AnswersWithAGreeting()
{
    start_greeter
    start caller gdbus call --system --dest :1.1 \
        --object-path /org/vaska/pelmar/CommunicationChannel/greeter \
        --method org.vaska.pelmar.DbusCommunication.Send "[byte 0x59, 0x6f, 0x75]"
    expect_end_of caller "$started" 0
    # "Hello, You!"
    expect_text caller out \
        "([byte 0x48, 0x65, 0x6c, 0x6c, 0x6f, 0x2c, 0x20, 0x59, 0x6f, 0x75, 0x21],)"
}

# ---- The endpoints of the tutorial ------------------------------------------------------------

greet()
{
    start hello-client "$programs/hello-client"
    start hello-service "$programs/hello-service"
    await hello-service "$started" "is ready"
    await hello-client "$started" "they go "
    expect_text hello-client out "the service answers: Hello, client!"
}

TheHelloClient.SaysThatTheyGoPastTheBus()
{
    greet
    expect_text hello-client out "they go past the bus"
}

TheHelloClient.SaysThatTheyGoByTheBusWhereThatIsWanted()
{
    export PELMAR_DIRECT=0
    greet
    expect_text hello-client out "they go by the bus"
}

start_private_bus
"$2"
