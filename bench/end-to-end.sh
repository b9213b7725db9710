#!/usr/bin/env bash
# The whole path on one machine: tovu-host on its own 1920x1080 virtual display, with a terminal
# scrolling without pause over most of it, and tovu-client connected over QUIC on loopback. Prints
# the time from connecting to the first decoded picture, the client's statistics, and the host's
# resident memory and processor use while it streams. Needs a release build of both programs.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/release/apps
seconds=${1:-10}

work=$(mktemp -d /tmp/tovu-bench.XXXXXX)
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
pids=()
trap 'for p in "${pids[@]}"; do kill -INT "$p" 2>/dev/null || true; done; wait 2>/dev/null || true' EXIT

"$bin/tovu-host" --virtual-display 1920x1080 --pair --no-advertise >"$work/host.log" 2>&1 &
host=$!
pids+=($host)
for _ in $(seq 1 120); do grep -q "^tovu://" "$work/host.log" && break; sleep 0.5; done
display=$(sed -n 's/^tovu-host: virtual display \(:[0-9]*\)$/\1/p' "$work/host.log")
port=$(sed -n 's/^tovu-host: listening on UDP port \([0-9]*\).*$/\1/p' "$work/host.log" | head -1)
link=$(grep -m1 "^tovu://" "$work/host.log")
DISPLAY=$display xterm -geometry 230x70+0+0 -e yes "a terminal that scrolls without pause" \
  >/dev/null 2>&1 &
pids+=($!)
"$bin/tovu-client" pair "$link" --address "127.0.0.1:$port" >/dev/null

ticks=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$host/stat"; }
"$bin/tovu-client" connect vm --address "127.0.0.1:$port" --seconds "$seconds" &
client=$!
sleep 3  # past the first picture and the first session's start
before=$(cpu)
start=$(date +%s.%N)
sleep $((seconds - 4))
after=$(cpu)
end=$(date +%s.%N)
rss=$(awk '/VmRSS/ {print $2}' "/proc/$host/status")
wait $client
awk -v b="$before" -v a="$after" -v s="$start" -v e="$end" -v t="$ticks" -v r="$rss" 'BEGIN {
  printf "host while streaming: %.0f%% of one core, %.0f MiB resident\n", 100 * (a - b) / t / (e - s), r / 1024 }'
