#!/usr/bin/env bash
# The demo: builds the replay tool and the Ice receiver, plays a sample drive through the whole
# service (the same run function, CAN stack, identification and sinks as the daemon) and shows
# what the service made of it: the identification as it happens, each record delivered to the
# Ice service, pretty-printed, and each status line of the ZeroMQ publisher.
#
#   tools/demo.sh [LOG [PERIOD_MS]]     default: samples/case-patriot-can3.log, 4000 ms
#
# It ends by itself once the record after the last frame has been delivered, and stops the
# receiver it started.
set -euo pipefail
cd "$(dirname "$0")/.."

sample=${1:-samples/case-patriot-can3.log}
period=${2:-4000}
if [ ! -r "$sample" ]; then
    echo "demo: cannot read $sample" >&2
    exit 2
fi

./tools/install-deps.sh

build=build/release
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTILTHWATCH_TESTS=OFF -DTILTHWATCH_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target tilthwatch-replay tilthwatch-ice-receiver

work=$(mktemp -d)
receiver=
shown=
cleanup() {
    for pid in $receiver $shown; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The user's machine file that goes with the sample, if there is one.
machine=${sample%-can[0-9].log}.machine.json
if [ ! -r "$machine" ]; then
    machine=$work/machine.json
    echo '{}' >"$machine"
fi

"$build/tools/tilthwatch-ice-receiver" --host 127.0.0.1 --port 0 --pretty \
    --status "ipc://$work/status" >"$work/receiver.out" 2>"$work/receiver.err" &
receiver=$!
for _ in $(seq 200); do
    grep -q "listening on" "$work/receiver.err" && break
    sleep 0.05
done
port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/receiver.err")
if [ -z "$port" ]; then
    cat "$work/receiver.err" >&2
    exit 1
fi
# What the receiver prints, as it prints it; tail ends with the receiver.
tail -n +1 -f --pid="$receiver" "$work/receiver.out" &
shown=$!

echo "== Replaying $sample, one record every $period ms (machine file: $machine)"
set +e
"$build/tools/tilthwatch-replay" --period-ms "$period" --ice "127.0.0.1:$port" \
    --zmq "ipc://$work/status" --machine-file "$machine" \
    --detected-file "$work/detectedMachine.json" --serial 10042 \
    --transmitted "$work/sent.log" --log-level info "$sample" |
    sed -unE 's/^\[[^]]*\] \[([0-9]+)\] \[[A-Z]+\] \[tilthwatch\.canpropertysourcestatemachine\]: (.*)$/identification, \1 ms: \2/p'
status=${PIPESTATUS[0]}
set -e

# Each record is followed by its status line; wait for the last one.
for _ in $(seq 100); do
    records=$(grep -cx machineTelematics "$work/receiver.out" || true)
    statuses=$(grep -c '^STATUS ' "$work/receiver.out" || true)
    [ "$statuses" -ge "$records" ] && break
    sleep 0.05
done
kill "$receiver"
wait "$receiver" 2>/dev/null || true
wait "$shown" 2>/dev/null || true
receiver=
shown=

echo "== Detected machine file: $(tr -s '\n ' ' ' <"$work/detectedMachine.json" 2>/dev/null || echo none)"
echo "== Frames the system sent: $(wc -l <"$work/sent.log"), the first ones:"
head -n 4 "$work/sent.log"
if [ "$status" -ne 0 ]; then
    echo "== The replay failed with status $status" >&2
fi
exit "$status"
