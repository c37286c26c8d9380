#!/bin/bash
# usage: install-test.sh WORK CASE, with CXX and CMake's own variables in the environment
# Installs the libraries into a scratch prefix below WORK, moves that, and uses it as projects
# outside the tree do. A case is a function named Subject.Sentence; CMakeLists.txt registers them
# all. The first of each kind prepares what the others of the kind use.
set -euo pipefail
work=$1 case=$2
here=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
root=$(realpath "$here/../..")
source "$root/scripts/processes.sh"
unset CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH

fail()
{
    echo "FAILED: $*" >&2
    exit 1
}

configure()  # SOURCE BUILD OPTION...
{
    rm -rf "$2"
    cmake -S "$1" -B "$2" -DCMAKE_BUILD_TYPE=Debug "${@:3}"
}

install_and_move()  # KIND SHARED
{
    configure "$root" "$work/$1/build" -DBUILD_SHARED_LIBS="$2" \
        -DPELMAR_BUILD_TESTS=OFF -DPELMAR_BUILD_EXAMPLES=OFF -DPELMAR_BUILD_TOOLS=OFF
    cmake --build "$work/$1/build" --parallel 2
    rm -rf "$work/$1"/{first,moved}
    cmake --install "$work/$1/build" --prefix "$work/$1/first"
    mv "$work/$1/first" "$work/$1/moved"
}

find_modules_of()  # KIND
{
    prefix=$work/$1/moved
    library=$(find "$prefix" -name 'libpelmar-dbus-local.*' -print -quit)
    lib=$(dirname "$library")
    export PKG_CONFIG_PATH=$lib/pkgconfig
}

compile()  # SOURCE MODULE
{
    # shellcheck disable=SC2046  # the flags are words
    ${CMAKE_CXX_COMPILER_LAUNCHER-} "$CXX" -std=c++17 -Wall -Werror -c "$here/consumer/$1.cpp" \
        -o "$processes_dir/$1.o" $(pkg-config --cflags "$2")
}

link()  # PROGRAM OBJECTS MODULES OPTION...
{
    # shellcheck disable=SC2046,SC2086  # words, all of them
    "$CXX" -o "$processes_dir/$1" $(printf "$processes_dir/%s.o " $2) \
        $(pkg-config --libs $3) "${@:4}"
}

build_by_find_package()  # KIND
{
    find_modules_of "$1"
    unset PKG_CONFIG_PATH
    configure "$here/consumer" "$processes_dir/consumer" -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build "$processes_dir/consumer" --parallel 2
}

expect_installed_policy()  # BUILD
{
    cmake --install "$1" --prefix "$processes_dir/prefix"
    "$root/packaging/dbus/pelmar-policy" --channel consumer --service-user svc --client-group app |
        diff - "$processes_dir/prefix/share/dbus-1/system.d/org.vaska.Pelmar.consumer.conf"
}

build_by_pkg_config()  # KIND
{
    find_modules_of "$1"
    compile service pelmar-dbus-local
    compile client pelmar-dbus-local-client
    compile main pelmar-dbus-local
    link consumer "service client main" "pelmar-dbus-local pelmar-dbus-local-client"
    compile endpoint pelmar-endpoint
    link endpoint endpoint pelmar-endpoint
}

expect_end_of()  # NAME ID
{
    wait "$2" || fail "the $1 ended with $?: $(cat "$processes_dir/$1.err")"
}

# Starts a program in both roles and waits until the text has arrived.
run_both_roles()  # PROGRAM
{
    start service "$1" service consumer
    local service=$started
    await service "$service" listening
    start client "$1" client consumer
    local client=$started
    await service "$service" "received hello"
    expect_end_of service "$service"
    expect_end_of client "$client"
}

expect_exchange()  # FOLDER
{
    start_private_bus
    run_both_roles "$1/consumer"
    grep -q "is lost" "$processes_dir/client.out" || fail "the client did not see the service go"
    local role
    for role in service client; do
        grep -q '^own log, kestrin: pelmar-dbus-local.cpp: ' "$processes_dir/$role.err" ||
            fail "the $role's log did not go to the program's own platform_log_print"
    done
    run_both_roles "$1/endpoint"
    grep -q "answered thanks" "$processes_dir/client.out" || fail "the endpoint got no answer"
}

expect_need_of()  # PROGRAM LIBRARY...
{
    local needed
    needed=$(readelf -d "$processes_dir/$1" | sed -n 's/.*NEEDED.*\[libpelmar-\(.*\)\.so.*/\1/p')
    [[ $(sort <<<"$needed" | paste -sd ' ') == "${*:2}" ]] || fail "$1 is linked with $needed"
}

expect_no_trace_of_the_first_prefix()  # KIND
{
    find_modules_of "$1"
    ! grep -rI -e "$work/$1" "$prefix" || fail "the lines above name the place of installation"
}

# ---- Static ---------------------------------------------------------------------------------

AStaticInstallation.CanBeMoved()
{
    install_and_move static OFF
    expect_no_trace_of_the_first_prefix static
}

AStaticInstallation.IsUsedByFindPackage()
{
    build_by_find_package static
    expect_installed_policy "$processes_dir/consumer"
    expect_exchange "$processes_dir/consumer"
}

AStaticInstallation.IsUsedByPkgConfig()
{
    build_by_pkg_config static
    expect_exchange "$processes_dir"
}

AStaticInstallation.LetsAProgramWrapFunctionsOfGio()
{
    find_modules_of static
    compile wrapping pelmar-dbus-local
    link wrapping wrapping pelmar-dbus-local -Wl,--wrap=g_bus_get_sync
    "$processes_dir/wrapping" 2>/dev/null | grep -x "no system bus today" ||
        fail "the channel's call of g_bus_get_sync was not wrapped"
}

# ---- Shared ---------------------------------------------------------------------------------

ASharedInstallation.CanBeMoved()
{
    install_and_move shared ON
    expect_no_trace_of_the_first_prefix shared
}

ASharedInstallation.IsUsedByFindPackage()
{
    build_by_find_package shared
    expect_exchange "$processes_dir/consumer"
}

ASharedInstallation.IsUsedByPkgConfig()
{
    build_by_pkg_config shared
    LD_LIBRARY_PATH=$lib expect_exchange "$processes_dir"
    expect_need_of consumer dbus-local dbus-local-client
    expect_need_of endpoint endpoint
    ! readelf -d "$processes_dir/endpoint" | grep 'NEEDED.*gio' ||
        fail "the endpoint's user is linked with GIO, which it does not use"
}

ASharedInstallation.ExportsNothingButItsApi()
{
    find_modules_of shared
    local exported
    exported=$(nm -D --defined-only "$lib"/libpelmar-*.so | grep -E '^[0-9a-f]+ ')
    grep -q 'PelmarDbusLocal13HandleMessage' <<<"$exported" || fail "the channel is not exported"
    # The standard library's templates are visible whatever the compiler is told.
    ! grep -vE 'PelmarDbusLocal|PelmarEndpoint|ConnectionPartner|platform_log_print| _Z(T[ISV]|ZN|NK?)?St' \
        <<<"$exported" || fail "the symbols above are exported"
}

# ---- As part of another project ---------------------------------------------------------------

ASubproject.BringsItsLibrariesAndNothingElse()
{
    local build=$processes_dir/build
    configure "$here/consumer" "$build" -DPELMAR_SOURCE="$root"
    cmake --build "$build" --parallel 2
    [[ $(ctest --test-dir "$build" -N) == *"Total Tests: 0"* ]] || fail "there are tests in it"
    [[ ! -e $build/pelmar/examples && ! -e $build/pelmar/tests ]] || fail "it has more than it needs"
    expect_installed_policy "$build"
    (($(find "$processes_dir/prefix" -type f | wc -l) == 3)) ||
        fail "more than the programs and the policy was installed: $(find "$processes_dir/prefix")"
    expect_exchange "$build"
}

mkdir -p "$work"
"$case"
