#!/usr/bin/env bash
# Connect to first picture through the relay against directly, in one run: the remote demo's small
# internet of namespaces, then N connects each way in turn (default 10). Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
TOVU_REMOTE_BENCH=${1:-10} TOVU_DEMO_SECONDS=2 exec bash scripts/run-remote-demo.sh
