#!/usr/bin/env bash
# The whole path on one machine: tovu-host on its own 1920x1080 virtual display, with a terminal
# scrolling without pause over most of it, and tovu-client connected over QUIC on loopback. Prints
# the time from connecting to the first decoded picture, the client's statistics, and the host's
# resident memory and processor use while it streams. Needs a release build of both programs.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
source bench/busy-host.sh

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
