#!/usr/bin/env bash
# Remote access on one machine, over a small internet of network namespaces
# (scripts/nat-network.sh): a coordinator and a relay on the public side, the host at home behind
# its router, enrolled with an invite; a device pairs at the host's home, then from another home,
# which cannot reach the host, connects through the relay by itself and streams while typing.
# Needs root (namespaces, nftables).
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_STREAM=${TOVU_DEMO_SECONDS:-10}
[ "$(id -u)" -eq 0 ] || { echo "run-remote-demo: network namespaces need root" >&2; exit 1; }

scripts/install-deps.sh
export CCACHE_BASEDIR="$PWD"
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release --target tovu-host tovu-client tovu-relay tovu-coordinator
apps=$PWD/build/release/apps

work=$(mktemp -d /tmp/tovu-remote-demo.XXXXXX)
net=tovudemo$$
public=100.64.0.1
pids=()
cleanup() {
  # TERM: programs started in the background of a script ignore INT.
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  scripts/nat-network.sh down "$net" >/dev/null 2>&1 || true
}
trap cleanup EXIT
# The command line of a place's namespace; `ip` execs the program, so `$!` is the program's.
inside() { echo ip netns exec "$net-$1"; }
wait_for() {  # FILE TEXT: until FILE says TEXT, for up to a minute
  for _ in $(seq 1 120); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.5; done
  echo "Waited in vain for \"$2\"; $1 says:" >&2
  cat "$1" >&2
  exit 1
}

echo "== a small internet: the public side ($public), the host's home, another home"
scripts/nat-network.sh up "$net"

echo "== the relay and the coordinator, on the public side"
coordinator=(--sqlite "$work/coordinator.db" --key "$work/coordinator.key")
# The relay admits the hosts whose tokens the coordinator signs: both use the one key.
$(inside public) "$apps/tovu-relay" --port 4433 --dev-key "$work/coordinator.key" >"$work/relay.log" 2>&1 &
pids+=($!)
wait_for "$work/relay.log" "listening on UDP port"
printf 'cn = "tovu coordinator"\nip_address = "%s"\nexpiration_days = 2\ntls_www_server\nca\n' \
  "$public" >"$work/cert.cfg"
certtool --generate-privkey --key-type ecdsa --outfile "$work/tls.key" 2>/dev/null
certtool --generate-self-signed --load-privkey "$work/tls.key" --template "$work/cert.cfg" \
  --outfile "$work/tls.pem" 2>/dev/null
$(inside public) "$apps/tovu-coordinator" serve "${coordinator[@]}" --port 8443 \
  --tls-cert "$work/tls.pem" --tls-key "$work/tls.key" --relay "sin:$public:4433" \
  >"$work/coordinator.log" 2>&1 &
pids+=($!)
wait_for "$work/coordinator.log" "serving HTTPS"
invite=$("$apps/tovu-coordinator" invite --account "demo" "${coordinator[@]}")
echo "invite: $invite"

echo "== the host, at home: enrolled with the invite, on a virtual display"
export XDG_DATA_HOME="$work/host/data" XDG_CONFIG_HOME="$work/host/config"
$(inside host) "$apps/tovu-host" remote enable --coordinator "https://$public:8443" --invite "$invite" \
  --ca "$work/tls.pem"
$(inside host) "$apps/tovu-host" --virtual-display 1280x720 --pair --no-advertise >"$work/host.log" 2>&1 &
pids+=($!)
wait_for "$work/host.log" "remote access: Ready"
grep "remote access:" "$work/host.log"
display=$(sed -n 's/^tovu-host: virtual display \(:[0-9]*\)$/\1/p' "$work/host.log")
port=$(sed -n 's/^tovu-host: listening on UDP port \([0-9]*\).*$/\1/p' "$work/host.log" | head -1)
link=$(grep -m1 "^tovu://" "$work/host.log")
DISPLAY=$display xclock -update 1 -geometry 320x320+80+120 >/dev/null 2>&1 &
pids+=($!)
DISPLAY=$display xterm -geometry 80x24+480+120 -e bash --norc >/dev/null 2>&1 &
pids+=($!)

echo "== the device pairs at the host's home, and is given a way through the relay"
export XDG_DATA_HOME="$work/device"
$(inside host) "$apps/tovu-client" pair "$link" --address "127.0.0.1:$port" --name "Tovu demo phone"
host_id=$("$apps/tovu-client" hosts | head -1 | cut -d' ' -f1)
$(inside host) "$apps/tovu-client" connect "$host_id" --address "127.0.0.1:$port" --seconds 2 |
  grep -E "^(Connected|Remote access)"

echo "== away from home: the host cannot be reached directly, so through the relay"
$(inside client) "$apps/tovu-client" connect "$host_id" --seconds "$SECONDS_TO_STREAM" \
  --type $'echo Hello through the relay\n' --save-frame "$work/relayed-frame.png"
echo "The last picture, through the relay: $work/relayed-frame.png"

# With TOVU_REMOTE_BENCH=N (bench/relay-connect.sh): connect to first picture N times at home
# (directly) and N times away (through the relay), in turn, and their medians.
if [ -n "${TOVU_REMOTE_BENCH:-}" ]; then
  echo "== connect to first picture, $TOVU_REMOTE_BENCH times each way"
  first_picture() {  # PLACE OPTIONS...: milliseconds to the first picture of one connect
    $(inside "$1") "$apps/tovu-client" connect "$host_id" --seconds 1 "${@:2}" |
      sed -n 's/^First picture \([0-9]*\) ms after connecting$/\1/p'
  }
  : >"$work/direct" && : >"$work/relayed"
  for _ in $(seq 1 "$TOVU_REMOTE_BENCH"); do
    first_picture host --address "127.0.0.1:$port" >>"$work/direct"
    first_picture client --via-relay >>"$work/relayed"
  done
  summary() {
    sort -n "$1" | awk '{v[NR] = $1} END {printf "median %d ms (min %d, max %d, %d runs)\n", v[int((NR + 1) / 2)], v[1], v[NR], NR}'
  }
  echo "direct, at the host's home: $(summary "$work/direct")"
  echo "through the relay, away:    $(summary "$work/relayed")"
fi
