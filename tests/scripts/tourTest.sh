#!/usr/bin/env bash
# Types the commands of a document along, as a reader would, and compares what they print with what the document shows.
#
#   tests/scripts/tourTest.sh DOCUMENT SOURCE_DIR BIN_DIR
#
# Commands are the lines that begin with "$ " in the document's console blocks; they run in one shell, in SOURCE_DIR,
# with /dev/shm/lab elsewhere. A line "..." stands for any lines. Process ids and durations are not compared. What only
# looks is asked again until the agent has caught up with the command before it.
set -euo pipefail
set -m

document=$1
cd "$2"
PATH=$3:$PATH
export FASTLOG_DISABLE=1
scratch=$(mktemp -d /dev/shm/XXX) # as long as /dev/shm/lab, for the width of columns
trap 'kill -9 $(jobs -p) 2>/dev/null || true; rm -rf "$scratch" "$scratch".*' EXIT
rmdir "$scratch"
lab=/dev/shm/lab
failed=0

# What may differ between two runs.
plain() { sed -E "s|$scratch|$lab|g; s/pid [0-9]+/pid N/g; s/[0-9.]+ (s|ms) ago/N ago/g"; }

# fits EXPECTED ACTUAL: whether the texts are the same, "..." lines aside.
fits() {
  awk 'function ends(i, j) {  # whether expected from i and actual from j on are the same
         for (; i <= n; ++i, ++j) {
           if (expected[i] == "...") {
             for (; j <= m + 1; ++j) if (ends(i + 1, j)) return 1
             return 0
           }
           if (j > m || expected[i] != actual[j]) return 0
         }
         return j > m
       }
       NR == FNR { expected[++n] = $0; next }
       { actual[++m] = $0 }
       END { exit !ends(1, 1) }' <(printf '%s\n' "$1") <(printf '%s\n' "$2")
}

# try COMMAND EXPECTED LINE
try() {
  local command=$1 expected actual tries=1
  expected=$(plain <<<"$2")
  if [[ $command =~ ^(tunnelctl\ |cat\ ) && $command != *' publish '* ]]; then tries=200; fi
  while ((tries-- > 0)); do
    set +e
    eval "${command//$lab/$scratch}" >"$scratch.out" 2>&1
    set -e
    actual=$(plain <"$scratch.out")
    if fits "$expected" "$actual"; then return; fi
    sleep 0.1
  done
  printf '%s:%s: $ %s\n' "$document" "$3" "$command"
  diff <(printf '%s\n' "$expected") <(printf '%s\n' "$actual") || true
  failed=1
}

command='' expected='' begin=0 number=0 isInside=
finish() {
  if [[ -n $command ]]; then try "$command" "${expected%$'\n'}" "$begin"; fi
  command=
}
while IFS= read -r -u 3 line; do
  number=$((number + 1))
  if [[ $line == '```console' ]]; then
    isInside=1
  elif [[ $line == '```' ]]; then
    finish
    isInside=
  elif [[ -n $isInside && $line == '$ '* ]]; then
    finish
    command=${line#'$ '} expected='' begin=$number
  elif [[ -n $isInside ]]; then
    expected+=$line$'\n'
  fi
done 3<"$document"
exit "$failed"
