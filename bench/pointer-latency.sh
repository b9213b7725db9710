#!/usr/bin/env bash
# Pointer latency while the host streams a busy 1080p screen: tovu-host on its own 1920x1080
# virtual display with a terminal scrolling without pause over most of it, a client paired by
# link, and pointer_latency_bench sending a move every 10 ms while it takes the stream. Prints
# p50, p99 and the largest delay from the client's send to the X server's report. Needs a release
# build of both programs and of the benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
source bench/busy-host.sh
paired=$("$bin/tovu-client" hosts | head -1 | cut -d' ' -f1)
build/release/bench/pointer_latency_bench "$display" "127.0.0.1:$port" "$paired" "$seconds"
