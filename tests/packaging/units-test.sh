#!/bin/bash
# usage: units-test.sh CASE
# Tests of the example units. A case is a function named Subject.Sentence; CMakeLists.txt registers
# them all.
set -euo pipefail
hello=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../../examples/hello")

if ! command -v systemd-analyze >/dev/null; then
    echo "SKIPPED: there is no systemd-analyze here (Debian: apt-get install systemd)"
    exit 77
fi

expect_exposure_below_2()  # UNIT
{
    systemd-analyze security --offline=true --no-pager --threshold=19 "$hello/$1"
}

TheHelloService.IsHardened()
{
    expect_exposure_below_2 hello-service.service
}

TheHelloClient.IsHardened()
{
    expect_exposure_below_2 hello-client.service
}

"$1"
