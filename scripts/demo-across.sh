# The demo across two machines: two buses stand for them, with a broker between; for scripts/demo,
# which sets $root, $file and die.
# shellcheck shell=bash disable=SC2154

bridge()  # SIDE NAME BUS
{
    start "$2" "$bridge" "$1" demo --port "$broker_port" --bus "$3"
}

send_file()
{
    local status=0
    DBUS_SYSTEM_BUS_ADDRESS=$bus_b setpriv --pdeathsig KILL "$examples/digest-client" \
        --channel demo --timeout 10 -- "$file" 2>"$processes_dir/client.err" &
    wait $! || status=$?
    ((status == 0)) && return
    cat "$processes_dir"/{client,bridge-a,bridge-b}.err >&2
    die "the client ended with status $status"
}

echo "== Machine A: a bus and the digest service on it"
start_bus machine-a
bus_a=$DBUS_SYSTEM_BUS_ADDRESS
start service "$examples/digest-service" --channel demo
await service "$started" "listening on channel demo"
echo "== Machine B: a bus; between the two: an MQTT broker"
start_bus machine-b
bus_b=$DBUS_SYSTEM_BUS_ADDRESS
start_broker
echo "== A bridge on each"
bridge --attach bridge-a "$bus_a"
bridge_a=$started
bridge --offer bridge-b "$bus_b"
bridge_b=$started
await bridge-b "$bridge_b" "the service is offered"

echo "== The client on machine B sends '$file' to the service on machine A"
send_file

echo "== The bridge of machine A is killed: the service leaves machine B's bus"
{ kill -KILL "$bridge_a"; wait "$bridge_a"; } 2>/dev/null || true
await bridge-b "$bridge_b" "no longer offered"
echo "== It is started again"
: >"$processes_dir/bridge-b.err"
bridge --attach bridge-a "$bus_a"
await bridge-b "$bridge_b" "the service is offered"
send_file

echo "== What the bridge of machine B carried"
kill -TERM "$bridge_b"
wait "$bridge_b"
sed -n 's/.*\(forwarded .*\)/  \1/p' "$processes_dir/bridge-b.err"
bytes=0
while read -r _ _ size _; do
    ((bytes += size, 1))
done < <(grep '^message ' "$processes_dir/service.out")
((bytes == 2 * $(stat -Lc %s -- "$file"))) || die "the service received $bytes bytes"
echo "Verified: '$file' reached the service on the other bus twice, $bytes bytes in all, and the" \
    "SHA-256 of each message came back right."
