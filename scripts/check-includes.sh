#!/usr/bin/env bash
# Fails, naming the file and the include, when one of our files includes a header through a door
# that docs/architecture.md does not open: its "Doors" table says which rooms a room may include,
# its "Platform implementations" table which room composes each of those.
set -euo pipefail
cd "$(dirname "$0")/.."

doc=docs/architecture.md

# The rows of the table under "## <heading>", as "first cell|second cell", backquotes dropped.
rows() {
  awk -v heading="## $1" '
    $0 == heading { inside = 1; next }
    /^## / { inside = 0 }
    inside && /^\| `/ { split($0, cell, "|"); print cell[2] "|" cell[3] }
  ' "$doc" | tr -d '`'
}

declare -A doors composers
while IFS='|' read -r room open; do
  read -r room <<<"$room"
  read -r open <<<"$open"
  doors[$room]=$open
done < <(rows Doors)
while IFS='|' read -r implementation composer; do
  read -r implementation <<<"$implementation"
  read -r composer <<<"$composer"
  composers[$implementation]=$composer
done < <(rows "Platform implementations")
if ((${#doors[@]} == 0)); then
  echo "$doc: no Doors table" >&2
  exit 1
fi

# The room of a path into REPLY: the longest row of the table that is a prefix of it; empty when
# none is.
room_of() {
  REPLY=$1
  while [[ $REPLY == */* ]]; do
    REPLY=${REPLY%/*}
    [[ -v doors[$REPLY] ]] && return
  done
  REPLY=
}

# Whether `room` may include a header of `target`: its own room, or behind one of its doors.
opens() {
  local room=$1 target=$2 door
  [[ $target == "$room" ]] && return 0
  for door in ${doors[$room]}; do
    [[ $target == "$door" || $target == "$door"/* ]] && return 0
  done
  return 1
}

# Whether `room` may include `header` of room `target` should it be a platform implementation:
# within the implementation's top folder, only its own room and those that compose it may.
composes() {
  local room=$1 header=$2 target=$3 implementation=${2%.*}
  [[ -v composers[$implementation] ]] || return 0
  [[ $room == "$target" || ${room%%/*} != "${target%%/*}" ]] && return 0
  [[ " ${composers[$implementation]} " == *" $room "* ]]
}

failures=0
fail() {
  echo "$1" >&2
  failures=$((failures + 1))
}

while IFS= read -r file; do
  room_of "$file"
  room=$REPLY
  if [[ -z $room ]]; then
    fail "$file: its folder is no room of $doc"
    continue
  fi
  while IFS=: read -r line include; do
    header=${include#\#include \"}
    header=${header%%\"*}
    room_of "$header"
    target=$REPLY
    where="$file:$line: #include \"$header\""
    if [[ -z $target ]]; then
      fail "$where: name headers from the root of the tree"
    elif ! opens "$room" "$target"; then
      fail "$where: $room has no door to $target"
    elif ! composes "$room" "$header" "$target"; then
      fail "$where: a platform implementation, which only ${composers[${header%.*}]} composes"
    fi
  done < <(grep -n '^#include "' "$file" || true)
done < <(find kit host client apps tests bench fuzz -type f \( -name '*.hpp' -o -name '*.cpp' \) |
  sort)

if ((failures > 0)); then
  echo "$failures include(s) cross a door that $doc does not open" >&2
  exit 1
fi
echo "includes: every door is open in $doc"
