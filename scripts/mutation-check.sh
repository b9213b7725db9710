#!/usr/bin/env bash
# Hand-made mutants of the places where a quiet fault would hurt most: the wire decoder, the
# authentication proof, the pairing link, received files' names and the relay's grant and
# datagrams. Each mutant is one exact text substitution in a copy
# of the tree (build/mutants/src: the tracked and the untracked-but-not-ignored files of this
# checkout); only the test executables that cover the mutated file are rebuilt (under
# build/mutants, through ccache) and run. A mutant is KILLED when a test fails (or hangs),
# SURVIVED otherwise.
# Exits non-zero if any mutant survived, if a pattern is not found exactly once, or if a mutant
# does not compile. Takes no lock itself: callers that share the machine wrap it in one.
#
#   scripts/mutation-check.sh            every mutant
#   scripts/mutation-check.sh W1 P3      the named ones
#   MUTATION_REV=<commit> scripts/mutation-check.sh   against the tests of that commit
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
src=$root/build/mutants/src
# The same relative layout as build/release, so that ccache (paths relative to the base folder)
# serves the unmutated objects from the release build's cache.
bin=$src/build/release
export CCACHE_BASEDIR=$src

# id | file | tests (executables) | what | pattern | replacement   (patterns are Python literals)
mutants=(
  "W1|kit/wire/WireDecoder.cpp|kit_wire_tests|length limit off by one (one byte over is accepted)|'if (length > maxFrameLength_)'|'if (length > maxFrameLength_ + 1)'"
  "W2|kit/wire/FrameReader.cpp|kit_wire_tests|strings not checked for UTF-8|'if (!isValidUTF8(bytes)) throw'|'if (false) throw'"
  "W3|kit/wire/WireDecoder.cpp|kit_wire_tests|a decoder past an oversized frame is not poisoned|'  if (poisoned_) throw *poisoned_;\n'|''"
  "A1|kit/crypto/AuthCrypto.cpp|kit_crypto_tests kit_security_tests|host fingerprint dropped from the transcript|'nonce,\n                        hostFingerprint, deviceID.bytes'|'nonce,\n                        ByteView(hostFingerprint).first(0), deviceID.bytes'"
  "A2|kit/security/HostAuthGate.cpp|kit_security_tests|signature check inverted|'if (!AuthCrypto::verifyChallenge('|'if (AuthCrypto::verifyChallenge('"
  "A3|kit/crypto/AuthCrypto.cpp|kit_crypto_tests kit_security_tests|TLS exporter not bound into the transcript|'const ByteView tail = exporter ? ByteView(*exporter) : ByteView();'|'const ByteView tail = ByteView();'"
  "P1|kit/security/PairingURL.cpp|kit_security_tests|scheme compared case-sensitively|'c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));'|'c = static_cast<char>(c);'"
  "P2|kit/security/PairingURL.cpp|kit_security_tests|fingerprint length not checked|'fingerprint->size() != 32'|'false'"
  "P3|kit/security/PairingURL.cpp|kit_security_tests|a repeated query item replaces the first|'parts.query.try_emplace(*name, std::move(value));'|'parts.query.insert_or_assign(*name, std::move(value));'"
  "F1|host/files/FileNames.cpp|host_files_tests|leading dots kept (a hidden file)|\"name.erase(0, std::min(name.find_first_not_of('.'), name.size()));\"|''"
  "R1|kit/relay/RelayJoinGrant.cpp|kit_relay_tests|a grant verified without its host's hkid|'grant->hkid != RelayWire::hkid(hostPublicKey)'|'false'"
  "R2|kit/relay/RelayFrame.cpp|kit_relay_tests|type byte 17 accepted|'type > kLastType) {'|'type > kLastType + 1) {'"
  "R3|relay/RelayServerCore.cpp|relay_server_tests|a cookie not bound to its source address|'concat({head, from.ip, port})'|'concat({head})'"
  "C1|coordinator/CoordinatorCore.cpp|coordinator_tests|the host's clock not checked|'std::abs(skew) <= options_.allowedSkew.count()'|'std::abs(skew) >= 0'"
  "C2|coordinator/CoordinatorStore.cpp|coordinator_tests|a used invite taken again|'AND used_at IS NULL '|''"
)

# Copies the checkout (or, with MUTATION_REV set, that commit) into $src, rewriting only files
# whose bytes differ so that Ninja rebuilds only what changed.
sync_tree() {
  from=$root
  if [[ -n ${MUTATION_REV:-} ]]; then
    from=$(mktemp -d)
    trap 'rm -rf "$from"' EXIT
    git archive "$MUTATION_REV" | tar -x -C "$from"
  fi
  mkdir -p "$src"
  (cd "$from" && if [[ -n ${MUTATION_REV:-} ]]; then find . -type f -print0; else
    git ls-files -z --cached --others --exclude-standard; fi) | python3 -c '
import os, sys, shutil
base, src = sys.argv[1], sys.argv[2]
for path in sys.stdin.buffer.read().split(b"\0"):
    path = path.decode()
    origin = os.path.join(base, path)
    if not path or not os.path.isfile(origin):
        continue
    target = os.path.join(src, path)
    with open(origin, "rb") as f:
        data = f.read()
    if os.path.exists(target):
        with open(target, "rb") as f:
            if f.read() == data:
                continue
    os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
    shutil.copyfile(origin, target)  # a new time stamp: Ninja sees the change
' "$from" "$src"
}

# substitute FILE PATTERN REPLACEMENT: fails loudly unless the pattern occurs exactly once.
substitute() {
  python3 - "$1" "$2" "$3" <<'EOF'
import ast, sys
path, pattern, replacement = sys.argv[1], ast.literal_eval(sys.argv[2]), ast.literal_eval(sys.argv[3])
text = open(path).read()
count = text.count(pattern)
if count != 1:
    sys.exit(f"mutation-check: pattern {pattern!r} found {count} times in {path}, expected once")
open(path, "w").write(text.replace(pattern, replacement))
EOF
}

# run_tests EXECUTABLES...: prints the failed cases; returns non-zero if any executable failed.
run_tests() {
  local status=0 exe log
  for exe in "$@"; do
    log=$bin/$exe.log
    if ! timeout 600 "$bin/tests/$exe" --gtest_brief=1 >"$log" 2>&1; then
      status=1
      grep -o '^\[  FAILED  \] [A-Za-z0-9_]*\.[A-Za-z0-9_/]*' "$log" | sed 's/^\[  FAILED  \] /    failed: /' |
        sort -u || echo "    $exe exited non-zero without a failed case (crash or timeout)"
    fi
  done
  return $status
}

selected=("$@")
chosen=()
for m in "${mutants[@]}"; do
  id=${m%%|*}
  if [[ ${#selected[@]} -eq 0 ]] || [[ " ${selected[*]} " == *" $id "* ]]; then chosen+=("$m"); fi
done
[[ ${#chosen[@]} -gt 0 ]] || { echo "mutation-check: no mutant named ${selected[*]}" >&2; exit 2; }

sync_tree
cmake -S "$src" -B "$bin" -G Ninja -DTOVU_WERROR=ON -DCMAKE_BUILD_TYPE=Release -DTOVU_BENCH=OFF \
  >/dev/null

all_tests=$(for m in "${chosen[@]}"; do IFS='|' read -r _ _ tests _ <<<"$m"; echo "$tests"; done |
  tr ' ' '\n' | sort -u | tr '\n' ' ')
echo "== unmutated: $all_tests"
# shellcheck disable=SC2086
cmake --build "$bin" --target $all_tests >/dev/null
# shellcheck disable=SC2086
if ! run_tests $all_tests; then
  echo "mutation-check: the unmutated tests fail; fix them first" >&2
  exit 2
fi

survived=0
for m in "${chosen[@]}"; do
  IFS='|' read -r id file tests what pattern replacement <<<"$m"
  echo "== $id $file: $what"
  cp "$src/$file" "$bin/pristine"
  substitute "$src/$file" "$pattern" "$replacement"
  # shellcheck disable=SC2086
  if ! cmake --build "$bin" --target $tests >"$bin/mutant-build.log" 2>&1; then
    cp "$bin/pristine" "$src/$file"
    cat "$bin/mutant-build.log" >&2
    echo "mutation-check: mutant $id does not compile" >&2
    exit 2
  fi
  # shellcheck disable=SC2086
  if run_tests $tests; then
    echo "   SURVIVED"
    survived=$((survived + 1))
  else
    echo "   KILLED"
  fi
  cp "$bin/pristine" "$src/$file"
done

echo "== ${#chosen[@]} mutants, $survived survived"
[[ $survived -eq 0 ]]
