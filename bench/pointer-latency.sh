#!/usr/bin/env bash
# Pointer latency while the host streams a busy 1080p screen: tovu-host on its own 1920x1080
# virtual display with a terminal scrolling without pause over most of it, a client paired by
# link, and pointer_latency_bench sending a move every 10 ms while it takes the stream. Prints
# p50, p99 and the largest delay from the client's send to the X server's report. Needs a release
# build of both programs and of the benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/release
seconds=${1:-10}

work=$(mktemp -d /tmp/tovu-bench.XXXXXX)
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
pids=()
trap 'for p in "${pids[@]}"; do kill -INT "$p" 2>/dev/null || true; done; wait 2>/dev/null || true' EXIT

"$build/apps/tovu-host" --virtual-display 1920x1080 --pair --no-advertise >"$work/host.log" 2>&1 &
pids+=($!)
for _ in $(seq 1 120); do grep -q "^tovu://" "$work/host.log" && break; sleep 0.5; done
display=$(sed -n 's/^tovu-host: virtual display \(:[0-9]*\)$/\1/p' "$work/host.log")
port=$(sed -n 's/^tovu-host: listening on UDP port \([0-9]*\).*$/\1/p' "$work/host.log" | head -1)
link=$(grep -m1 "^tovu://" "$work/host.log")
DISPLAY=$display xterm -geometry 230x70+0+0 -e yes "a terminal that scrolls without pause" \
  >/dev/null 2>&1 &
pids+=($!)
"$build/apps/tovu-client" pair "$link" --address "127.0.0.1:$port"
host=$("$build/apps/tovu-client" hosts | head -1 | cut -d' ' -f1)
"$build/bench/pointer_latency_bench" "$display" "127.0.0.1:$port" "$host" "$seconds"
