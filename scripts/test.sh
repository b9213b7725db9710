#!/usr/bin/env bash
# Checks the includes against the rooms' doors, installs what is missing, builds, and runs every
# test: a short, bounded run of every fuzz target from its seed corpus, the release build
# (warnings are errors), and the same suite under AddressSanitizer and UndefinedBehaviorSanitizer.
# Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== includes against the doors of docs/architecture.md"
scripts/check-includes.sh

scripts/install-deps.sh

# ccache hits across clones in other folders (CI builds a fresh clone each time).
export CCACHE_BASEDIR="$PWD"

build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja -DTOVU_WERROR=ON "$@" >/dev/null
  cmake --build "$dir"
}

run_tests() {
  ctest --test-dir "$1" --output-on-failure --timeout 900 -j "$(nproc)"
}

echo "== fuzz targets (libFuzzer, bounded)"
CXX=clang++-14 build build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVU_FUZZ=ON \
  -DTOVU_FUZZ_SECONDS="${TOVU_FUZZ_SECONDS:-30}"
run_tests build/fuzz

echo "== release build"
build build/release -DCMAKE_BUILD_TYPE=Release
run_tests build/release

echo "== sanitizer build (ASan + UBSan)"
build build/sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVU_SANITIZE=ON -DTOVU_BENCH=OFF
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp" \
  run_tests build/sanitize

echo "== thread sanitizer: the executor model, the queues and the session"
cmake -S . -B build/tsan -G Ninja -DTOVU_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVU_TSAN=ON \
  -DTOVU_BENCH=OFF >/dev/null
cmake --build build/tsan --target kit_async_tests kit_transport_tests host_session_tests
TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/tsan.supp" \
  ctest --test-dir build/tsan --output-on-failure --timeout 900 -j "$(nproc)" \
  -R '^(Task|AsyncQueue|InMemoryConnection|HostSession)\.'

# Informational: how much test there is for the product code (non-blank lines).
nonblank() { find "$@" -type f -exec cat {} + | grep -cv '^[[:space:]]*$'; }
grouped() { sed ':a;s/\B[0-9]\{3\}\>/,&/;ta' <<<"$1"; }
test_lines=$(nonblank tests)
code_lines=$(nonblank kit host client apps relay)
echo "tests: $(grouped "$test_lines") of $(grouped "$code_lines") lines of code" \
  "($(((100 * test_lines + code_lines / 2) / code_lines)) %)"
