#!/usr/bin/env bash
# Files while the video streams: tovu-host on its busy 1080p display (see busy-host.sh), and the
# client decoding the stream while it sends 1 GiB as ten transfers of 100 MiB (the most one
# transfer carries), one after another; a run without the files, of the same length, before it.
# Prints each transfer's time and rate, and the frame rate of the seconds the files took against
# the same seconds of the run without them. Then the same with a light scene (the big terminal
# stopped, a small one scrolling), and with a still screen, which costs next to nothing: what the
# files add to the host's and the client's processor time there is their cost per 100 MB. Needs a
# release build of both programs.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
source bench/busy-host.sh
terminal=${pids[1]}
head -c 104857600 /dev/urandom >"$work/100MiB.bin"
# Runs the client for `seconds` with the options given; its log in $1, its processor seconds in
# $1.cpu, the host's in $1.host.
run() {
  local log=$1 before TIMEFORMAT='%U %S'
  shift
  before=$(cpu)
  { time "$bin/tovu-client" connect vm --address "127.0.0.1:$port" --seconds "$seconds" "$@" \
    >"$log"; } 2>"$log.time"
  awk '{print $1 + $2}' "$log.time" >"$log.cpu"
  echo "$(($(cpu) - before))" | awk -v t="$ticks" '{print $1 / t}' >"$log.host"
}
# The mean frame rate of the seconds from the third to `last` in a client's log.
fps() {
  sed -n 's/^\[ *\([0-9]*\)s\] *\([0-9.]*\) fps.*/\1 \2/p' "$1" |
    awk -v last="$2" '$1 >= 3 && $1 <= last {s += $2; n++} END {printf "%.1f", n ? s / n : 0}'
}
# The second within which the last transfer ended.
lastSecond() {
  awk -F'[][]' '/^\[ *[0-9]+s\]/ {gsub(/[^0-9]/, "", $2); s = $2} /Done:/ {d = s} END {print d + 1}' "$1"
}
sends=()
for _ in $(seq 1 10); do sends+=(--send "$work/100MiB.bin"); done

# Runs `scene` without files and with them, and prints the transfers and the frame rates.
scene() {
  local name=$1 last
  run "$work/$name.log"
  run "$work/$name-files.log" "${sends[@]}"
  echo "$name:"
  grep "Done:" "$work/$name-files.log" | sed 's/^/  /'
  last=$(lastSecond "$work/$name-files.log")
  echo "  frame rate, seconds 3 to $last: $(fps "$work/$name.log" "$last") fps without files," \
    "$(fps "$work/$name-files.log" "$last") fps with"
}

scene busy
# A light scene: the big terminal still, a small one (80x24) scrolling without pause.
kill -STOP "$terminal"
DISPLAY=$display xterm -geometry 80x24+100+100 -e yes "a small terminal" >/dev/null 2>&1 &
small=$!
pids+=($small)
sleep 1
scene light
kill "$small"
# Still: no video to speak of, so the processor time is the files' own.
scene still
kill -CONT "$terminal"
for side in host cpu; do
  awk -v name="$([ $side = host ] && echo host || echo client)" 'NR == 1 {a = $1} NR == 2 {
    printf "  %s processor time: %.2f s without files, %.2f s with; %.3f s per 100 MB\n",
      name, a, $1, ($1 - a) / 10 / 1.048576 }' "$work/still.log.$side" "$work/still-files.log.$side"
done
