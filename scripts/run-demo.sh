#!/usr/bin/env bash
# The main job, on one machine: installs what is missing, builds, starts a virtual display with a
# clock and a terminal on it and a sound server of its own playing quiet noise, starts the host,
# pairs the reference client by token, streams picture and sound for a while typing into the
# terminal, then streams the terminal's window alone (focus mode), opens an installed application
# from the client and quits it, shows a program's menu bar on the client and presses one of its
# items, sends files to the host's inbox and clipboard, then shows remote access through a relay
# over network namespaces (scripts/run-remote-demo.sh), and says what happened.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_STREAM=${TOVU_DEMO_SECONDS:-10}

scripts/install-deps.sh
export CCACHE_BASEDIR="$PWD"
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release --target tovu-host tovu-client tovu_menu_app

work=$(mktemp -d /tmp/tovu-demo.XXXXXX)
# The demo's own identities, pairings and settings, apart from the user's.
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -INT "$pid" 2>/dev/null || true; done
  # The bus ends on TERM only.
  [ -z "${bus_pid:-}" ] || kill -TERM "$bus_pid" 2>/dev/null || true
  wait 2>/dev/null || true
}
trap cleanup EXIT

echo "== starting a sound server of the demo's own, with something playing"
# A private PulseAudio with a null output, so that the demo neither needs nor disturbs speakers.
mkdir -p "$work/pulse"
cat >"$work/pulse/pa.pa" <<EOF
load-module module-native-protocol-unix socket=$work/pulse/sock auth-anonymous=1
load-module module-null-sink sink_name=demo_out rate=48000 channels=2
set-default-sink demo_out
EOF
HOME="$work/pulse" XDG_RUNTIME_DIR="$work/pulse" pulseaudio -n -F "$work/pulse/pa.pa" \
  --daemonize=no --exit-idle-time=-1 --disable-shm=yes >"$work/pulse.log" 2>&1 &
pids+=($!)
export PULSE_SERVER="unix:$work/pulse/sock"
for _ in $(seq 1 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
# Quiet: when the demo ends, the sound server may go before the player and it would say so.
pacat --volume=6000 --rate=48000 --channels=2 --format=s16le /dev/urandom >/dev/null 2>&1 &
pids+=($!)

# A session bus of the demo's own, where programs publish their menus.
dbus-daemon --session --nofork --print-address=1 >"$work/session-bus" 2>&1 &
bus_pid=$!
for _ in $(seq 1 50); do [ -s "$work/session-bus" ] && break; sleep 0.1; done
DBUS_SESSION_BUS_ADDRESS=$(head -1 "$work/session-bus")
export DBUS_SESSION_BUS_ADDRESS

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

# A window manager, something that moves, and somewhere to type.
DISPLAY=$display openbox --sm-disable >/dev/null 2>&1 &
pids+=($!)
DISPLAY=$display xclock -update 1 -geometry 320x320+80+120 >/dev/null 2>&1 &
pids+=($!)
DISPLAY=$display xterm -geometry 80x24+480+120 -e bash --norc >/dev/null 2>&1 &
pids+=($!)
sleep 1

echo "== pairing the client by token"
echo "link: $link"
build/release/apps/tovu-client pair "$link" --address "127.0.0.1:$port" --name "Tovu demo client"

echo "== streaming picture and sound for $SECONDS_TO_STREAM seconds"
host_id=$(build/release/apps/tovu-client hosts | head -1 | cut -d' ' -f1)
build/release/apps/tovu-client connect "$host_id" --address "127.0.0.1:$port" \
  --seconds "$SECONDS_TO_STREAM" --save-frame "$work/last-frame.png" \
  --type $'echo Hello from the Tovu client\n' --audio-out "$work/heard.wav" \
  --save-cursor "$work/cursor"

echo "== focus mode: the terminal's window alone, typed into from the client"
build/release/apps/tovu-client connect "$host_id" --address "127.0.0.1:$port" --seconds 4 \
  --apps --focus XTerm --type $'echo Only this window is streamed\n' --save-frame "$work/focus.png"

echo "== applications: the installed ones, one opened from the client, then quit"
client_app() {
  build/release/apps/tovu-client "$1" "$host_id" "${@:2}" --address "127.0.0.1:$port" --seconds 20
}
client_app apps --installed | grep -E "^(Installed|Icon) "
client_app launch debian-uxterm | grep "^Launch "
uxterm_pid=$(client_app apps | sed -n 's/^App \([0-9]*\) .*(debian-uxterm).*$/\1/p' | head -1)
if [ -n "$uxterm_pid" ]; then client_app quit "$uxterm_pid" | grep -E "^(Asked|Process) "; fi

echo "== actions: the menu bar of the program in front, and one of its items pressed"
# A small GTK program of the tests' own, whose menu model GTK exports on the session bus.
DISPLAY=$display NO_AT_BRIDGE=1 TOVU_MENU_LOG="$work/menu-presses" build/release/tests/tovu_menu_app \
  >"$work/menu-app.log" 2>&1 &
pids+=($!)
for _ in $(seq 1 50); do grep -q ready "$work/menu-app.log" && break; sleep 0.2; done
client_app actions >"$work/actions.txt"
head -12 "$work/actions.txt"
client_app action File "New Window"
echo "The program says: $(cat "$work/menu-presses" 2>/dev/null)"

echo "== files: a picture and a note sent from the client land in the host's inbox and clipboard"
# A notification daemon on the virtual display, which tells the person at the host what arrived.
DISPLAY=$display dunst >"$work/dunst.log" 2>&1 &
pids+=($!)
gdbus wait --session --timeout 10 org.freedesktop.Notifications || true
echo "A note from the Tovu demo" >"$work/note.txt"
client_app send "$work/last-frame.png" "$work/note.txt"
sleep 0.5
echo "On the host's clipboard (text/uri-list):"
DISPLAY=$display timeout 5 xclip -o -selection clipboard -t text/uri-list | tr -d '\r'
dunstctl close-all 2>/dev/null || true
echo "The host's notification: $(dunstctl history 2>/dev/null |
  sed -n '/"summary"/,/"data"/ s/.*"data" : "\(.*\)".*/\1/p' | head -1)"

echo "== remote access: the same host and device, away from home, through a relay"
if [ "$(id -u)" -eq 0 ]; then
  TOVU_DEMO_SECONDS=5 bash scripts/run-remote-demo.sh 2>&1 | grep -v "^ninja: no work to do"
else
  echo "(network namespaces need root: sudo bash scripts/run-remote-demo.sh)"
fi

echo "== done"
echo "The last picture the client decoded: $work/last-frame.png"
echo "The terminal's window in focus mode: $work/focus.png"
echo "What the client heard: $work/heard.wav"
echo "The pointer's images and positions: $work/cursor"
echo "The host's log: $work/host.log"
