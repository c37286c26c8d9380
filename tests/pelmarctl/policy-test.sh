#!/bin/bash
# usage: policy-test.sh PELMARCTL PROGRAMS CASE
# Tests of pelmarctl policy.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
source "$root/tests/pelmarctl/steps.sh"
unset DBUS_SYSTEM_BUS_ADDRESS

policy=$processes_dir/policy.conf

make_policy()
{
    expect 0 policy demo --service-user root --client-user daemon
    cp "$processes_dir/ctl.out" "$policy"
}

# expect_complaint TEXT: of the policy as it is now.
expect_complaint()
{
    expect 1 policy demo --check "$policy"
    expect_text ctl out "$1"
    expect_text ctl out "remedy: "
}

APolicyPelmarctl.PrintsThePackagedPolicy()
{
    expect 0 policy demo --service-user root --client-group daemon
    sed -e 's/@CHANNEL@/demo/g' -e 's/@SERVICE@/user="root"/' -e 's/@CLIENT@/group="daemon"/' \
        "$root/packaging/dbus/channel.conf.in" | cmp - "$processes_dir/ctl.out"
    [[ ! -s $processes_dir/ctl.err ]] || fail "it says something"
}

APolicyPelmarctl.TellsThePolicyAsJson()
{
    expect 0 policy demo --service-user root --client-user daemon --json
    expect_json ctl '.[0].channel == "demo" and (.[0].policy | startswith("<?xml"))'
}

APolicyPelmarctl.WarnsOfAnAccountThatIsNotThere()
{
    expect 0 policy demo --service-user nobody-such --client-group none-such
    expect_error "user 'nobody-such' does not exist on this machine"
    expect_error "group 'none-such' does not exist on this machine"
}

APolicyPelmarctl.RefusesAWrongCommandLine()
{
    expect 2 policy demo
    expect_error "who is the service? Use --service-user or --service-group"
    expect 2 policy demo --service-user root
    expect_error "who is the client? Use --client-user or --client-group"
    expect 2 policy demo --service-user root --service-group daemon --client-user daemon
    expect 2 policy demo --service-user 'a"b' --client-user daemon
    expect_error "--service-user: 'a\"b' cannot be the name of a user or group"
    expect 2 policy demo --service-user 1000 --client-user daemon
    expect 2 policy demo --check "$policy" --service-user root
    expect 1 policy demo --check "$processes_dir/none"
    expect_error "cannot read '$processes_dir/none': No such file or directory"
    expect 1 policy demo --check "$processes_dir"
    expect_error "cannot read '$processes_dir': Is a directory"
    expect 1 policy demo --check ""
    expect_error "cannot read '': No such file or directory"
}

APolicyPelmarctl.FindsNothingWrongInItsOwnPolicy()
{
    make_policy
    expect 0 policy demo --check "$policy"
    expect_error "$policy: nothing is wrong"
    expect_output ""
}

APolicyPelmarctl.ExplainsWhatIsNotWellFormed()
{
    printf '<busconfig>\n<policy user="root">\n</busconfig>\n' >"$policy"
    expect_complaint "$policy:3: not well-formed: "
    echo '<other/>' >"$policy"
    expect_complaint "$policy: has no <busconfig>"
}

APolicyPelmarctl.ExplainsUnknownAccounts()
{
    make_policy
    sed -i 's/user="daemon"/user="nobody-such"/' "$policy"
    expect_complaint "user 'nobody-such' does not exist: the bus passes over these rules"
}

APolicyPelmarctl.ExplainsNamesThatAreMissing()
{
    make_policy
    sed -i '/_SERVICE_ACK/d' "$policy"
    expect_complaint "user 'root' may not own org.vaska.Pelmar.demo_SERVICE_ACK"
    sed -i '/_SERVICE_/d' "$policy"
    expect_complaint "nobody may be the service of channel demo"
    expect 1 policy other --check "$policy"
    expect_text ctl out "nobody may be the client of channel other"
}

APolicyPelmarctl.ExplainsRulesThatDoNotWork()
{
    make_policy
    sed -i 's/own="org.vaska.Pelmar.demo_CLIENT_SYN"/own_prefix="org.vaska.Pelmar.demo"/' "$policy"
    expect_complaint "own_prefix covers what follows a dot"
    make_policy
    sed -i 's/demo_CLIENT_SYN"/demo_CLIENT"/' "$policy"
    expect_complaint 'own="org.vaska.Pelmar.demo_CLIENT" is no name that a channel uses'
    make_policy
    sed -i 's/send_path="[^"]*"/send_destination="org.vaska.Pelmar.demo_SERVICE_SYN"/' "$policy"
    expect_complaint "send_destination matches only while the partner owns that name"
    expect_complaint "nobody may call Send on channel demo"
    make_policy
    sed -i 's/<deny send_type="signal"/<deny/' "$policy"
    expect_complaint "this denial hits every message without an interface as well"
}

APolicyPelmarctl.ExplainsWhatIsOpenToEverybody()
{
    make_policy
    sed -i 's/<policy user="[a-z]*">/<policy context="default">/' "$policy"
    expect_complaint "everybody may be the service"
    expect_complaint "everybody may call Send"
    make_policy
    sed -i '/<deny/d' "$policy"
    expect_complaint "everybody may send the two sides signals"
}

APolicyPelmarctl.TellsComplaintsAsJson()
{
    make_policy
    sed -i '/<deny/d' "$policy"
    expect 1 policy demo --check "$policy" --json
    expect_json ctl "length == 1 and .[0].where == \"$policy\" and .[0].problem != \"\" and
        .[0].remedy != \"\""
}

"$3"
