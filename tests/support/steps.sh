# Steps of test scripts that use scripts/processes.sh.
# shellcheck shell=bash disable=SC2154

fail()
{
    echo "FAILED: $*" >&2
    tail -n 20 "$processes_dir"/*.{out,err} >&2
    exit 1
}

expect_end_of()  # NAME ID STATUS
{
    local status=0
    wait "$2" || status=$?
    ((status == $3)) || fail "$1 ended with status $status and not with $3"
}

expect_text()  # NAME out|err TEXT
{
    grep -qFe "$3" "$processes_dir/$1.$2" || fail "$1.$2 has no '$3'"
}
