#!/usr/bin/env bash
# The main job, on one machine: installs what is missing, builds, starts a virtual display with a
# clock and a terminal on it, starts the host, pairs the reference client by token, streams for a
# while typing into the terminal, and says what happened.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_STREAM=${TOVU_DEMO_SECONDS:-10}

scripts/install-deps.sh
export CCACHE_BASEDIR="$PWD"
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release --target tovu-host tovu-client

work=$(mktemp -d /tmp/tovu-demo.XXXXXX)
# The demo's own identities, pairings and settings, apart from the user's.
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -INT "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

echo "== starting the host on a virtual display"
build/release/apps/tovu-host --virtual-display 1280x720 --pair --no-advertise >"$work/host.log" 2>&1 &
pids+=($!)
for _ in $(seq 1 120); do
  grep -q "^tovu://" "$work/host.log" && break
  sleep 0.5
done
display=$(sed -n 's/^tovu-host: virtual display \(:[0-9]*\)$/\1/p' "$work/host.log")
port=$(sed -n 's/^tovu-host: listening on UDP port \([0-9]*\).*$/\1/p' "$work/host.log" | head -1)
link=$(grep -m1 "^tovu://" "$work/host.log" || true)
if [ -z "$link" ] || [ -z "$port" ] || [ -z "$display" ]; then
  echo "The host did not come up; its log:" >&2
  cat "$work/host.log" >&2
  exit 1
fi
echo "host: display $display, UDP port $port"

# Something that moves, and somewhere to type.
DISPLAY=$display xclock -update 1 -geometry 320x320+80+120 >/dev/null 2>&1 &
pids+=($!)
DISPLAY=$display xterm -geometry 80x24+480+120 -e bash --norc >/dev/null 2>&1 &
pids+=($!)
sleep 1

echo "== pairing the client by token"
echo "link: $link"
build/release/apps/tovu-client pair "$link" --address "127.0.0.1:$port" --name "Tovu demo client"

echo "== streaming for $SECONDS_TO_STREAM seconds"
host_id=$(build/release/apps/tovu-client hosts | head -1 | cut -d' ' -f1)
build/release/apps/tovu-client connect "$host_id" --address "127.0.0.1:$port" \
  --seconds "$SECONDS_TO_STREAM" --save-frame "$work/last-frame.png" \
  --type $'echo Hello from the Tovu client\n'

echo "== done"
echo "The last picture the client decoded: $work/last-frame.png"
echo "The host's log: $work/host.log"
