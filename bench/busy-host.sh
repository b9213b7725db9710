# Sourced by the end-to-end benchmarks: tovu-host on its own 1920x1080 virtual display with a
# terminal scrolling without pause over most of it, and a client of its own paired by link. Sets
# `work`, `host` (its process), `display` and `port`; stops everything on exit.
bin=build/release/apps
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
DISPLAY=$display xterm -geometry 230x70+0+0 -e yes "a terminal that scrolls without pause" \
  >/dev/null 2>&1 &
pids+=($!)
"$bin/tovu-client" pair "$(grep -m1 "^tovu://" "$work/host.log")" --address "127.0.0.1:$port" \
  >/dev/null

# The host's processor time in clock ticks so far, and the ticks in a second.
ticks=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$host/stat"; }
