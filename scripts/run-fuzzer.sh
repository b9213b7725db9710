#!/usr/bin/env bash
# run-fuzzer.sh FUZZER SEED_CORPUS SECONDS
# A bounded fuzzing run from the seed corpus. A single allocation above 128 MiB counts as a
# failure: no input may make a decoder allocate what its bytes do not justify.
set -euo pipefail
fuzzer=$1 seeds=$2 seconds=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$seeds"/. "$work"/
exec "$fuzzer" "$work" -max_total_time="$seconds" -max_len=8192 -malloc_limit_mb=128 \
  -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="${TMPDIR:-/tmp}/"
