#!/bin/bash
# usage: policy-tool-test.sh CASE
# Tests of pelmar-policy as its users see it. A case is a function named Subject.Sentence;
# CMakeLists.txt registers them all.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
tool=$root/packaging/dbus/pelmar-policy
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail()
{
    echo "FAILED: $*" >&2
    exit 1
}

expect_refusal()  # TEXT ARGUMENT...
{
    local status=0
    "$tool" "${@:2}" >"$folder/out" 2>"$folder/err" || status=$?
    ((status == 2)) || fail "${*:2}: ended with status $status and not with 2"
    [[ ! -s $folder/out ]] || fail "${*:2}: printed something"
    grep -qFe "$1" "$folder/err" || fail "${*:2}: no '$1' in: $(cat "$folder/err")"
}

ThePolicyTool.WritesTheSameFileAsItPrints()
{
    local arguments=(--channel=demo --service-user svc --client-group=app)
    "$tool" "${arguments[@]}" >"$folder/printed"
    "$tool" "${arguments[@]}" --output "$folder/written"
    cmp "$folder/printed" "$folder/written"
    [[ $(stat -c %a "$folder/written") == 644 ]] || fail "the bus could not read the file"
    grep -q '<policy user="svc">' "$folder/written" || fail "the service is not in it"
    grep -q '<policy group="app">' "$folder/written" || fail "the client is not in it"
    ! grep @ "$folder/written" || fail "a place was not filled"
}

ThePolicyTool.GivesRoomForTheLongestName()
{
    local name
    name=$(printf 'c%.0s' {1..222})
    "$tool" --channel "$name" --service-user svc --client-user app |
        grep -o 'org.vaska.Pelmar[^"]*_SERVICE_SYN_ACK' >"$folder/name"
    (($(tr -d '\n' <"$folder/name" | wc -c) == 255)) || fail "the longest bus name has 255 characters"
    expect_refusal "has 223 characters: a bus name has room for 222" \
        --channel "c$name" --service-user svc --client-user app
}

ThePolicyTool.RefusesNamesThatNoChannelCanHave()
{
    local name
    for name in 9lives a-b a.b 'a b' 'a"b' $'a\nb' ä; do
        expect_refusal "'$name' cannot be a channel's name" \
            --channel "$name" --service-user svc --client-user app
    done
}

ThePolicyTool.RefusesAccountsThatTheBusWouldNotFind()
{
    expect_refusal "--service-user 1000 is a number: the bus needs the name" \
        --channel demo --service-user 1000 --client-user app
    expect_refusal "--client-group: 'a\"/>' cannot be the name" \
        --channel demo --service-user svc --client-group 'a"/>'
}

ThePolicyTool.SaysWhatIsMissingOrTooMuch()
{
    expect_refusal "--channel is missing" --service-user svc --client-user app
    expect_refusal "who is the service?" --channel demo --client-user app
    expect_refusal "who is the client?" --channel demo --service-user svc
    expect_refusal "--channel needs a value" --channel
    expect_refusal "--client-user needs a value" --channel demo --client-user=
    expect_refusal "the service is given twice" --channel demo --service-user a --service-group b
    expect_refusal "the client is given twice" --channel demo --client-user a --client-user b
    expect_refusal "--channel is given twice" --channel demo --channel demo
    expect_refusal "unknown argument '--chanel'" --chanel demo
}

ThePolicyTool.RefusesLimitsThatAreNone()
{
    expect_refusal "up to 160 partners the bus's own limits are enough" --limits 160
    local number
    for number in many -5 100001 99999999999999999999 0200; do
        expect_refusal "'$number' is not a number from 161 to 100000" --limits "$number"
    done
    expect_refusal "--limits goes with no other option" --limits 200 --channel demo
}

ThePolicyTool.SaysWhenItCannotWrite()
{
    local status=0
    "$tool" --limits 200 --output "$folder/none/file" 2>"$folder/err" || status=$?
    ((status == 1)) || fail "ended with status $status and not with 1"
    grep -q "cannot write '$folder/none/file'" "$folder/err" || fail "$(cat "$folder/err")"
}

ThePolicyTool.ShowsItsOptionsAsHelp()
{
    [[ $("$tool" --help) == "usage: pelmar-policy "* ]] || fail "there is no help"
    local option
    for option in $("$tool" --help | grep -oE '^  --[a-z-]+'); do
        sed 's/\\//g' "$root/packaging/dbus/pelmar-policy.1" | grep -qFe "$option" ||
            fail "the manual page has no $option"
    done
}

TheCMakeFunction.RefusesWhatTheToolRefuses()
{
    cat >"$folder/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.16)
project(bad NONE)
set_property(GLOBAL PROPERTY PELMAR_POLICY_TOOL $tool)
include($root/cmake/PelmarPolicy.cmake)
pelmar_install_policy(CHANNEL 9lives SERVICE_USER svc CLIENT_USER app)
END
    ! cmake -S "$folder" -B "$folder/build" >"$folder/out" 2>&1 || fail "it was configured"
    grep -q "'9lives' cannot be a channel's name" "$folder/out" || fail "$(cat "$folder/out")"
}

"$1"
