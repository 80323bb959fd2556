#!/usr/bin/env bash
# Types the commands of a document along, as a reader would, and compares what they print with what the document shows.
#
#   tests/scripts/tourTest.sh DOCUMENT SOURCE_DIR BIN_DIR
#
# Commands are the lines that begin with "$ " in the document's console blocks; they run in one shell, in SOURCE_DIR,
# with /dev/shm/lab elsewhere. Process ids, times and durations are not compared. What only looks is asked again until the
# agent has caught up with the command before it. The first difference ends the tour.
set -euo pipefail
set -m

document=$1
cd "$2"
PATH=$3:$PATH
scratch=$(mktemp -d /dev/shm/XXX) # as long as /dev/shm/lab, for the width of columns
trap 'kill -9 $(jobs -p) 2>/dev/null || true; wait 2>/dev/null; rm -rf "$scratch" "$scratch".*' EXIT
rmdir "$scratch"
lab=/dev/shm/lab

# What may differ between two runs.
plain() { sed -E "s|$scratch|$lab|g; s/pid [0-9]+/pid N/g; s/[0-9.]+ (s|ms) ago/N ago/g; s/^[0-9-]+T[0-9:.]+Z /TIME /"; }

# try COMMAND EXPECTED LINE
try() {
  local command=$1 expected actual end=0
  if [[ $command == 'export PATH='* ]]; then return; fi # BIN_DIR is what is tested
  if [[ $command == *' --svg '* ]] && ! command -v dot >/dev/null; then return; fi
  expected=$(plain <<<"$2")
  if [[ $command =~ ^(tunnelctl\ |cat\ ) && $command != *' publish '* ]]; then end=$((SECONDS + 20)); fi
  while true; do
    set +e
    eval "${command//$lab/$scratch}" >"$scratch.out" 2>&1
    set -e
    actual=$(plain <"$scratch.out")
    if [[ $actual == "$expected" ]]; then return; fi
    if ((SECONDS >= end)); then break; fi
    sleep 0.1
  done
  printf '%s:%s: $ %s\n' "$document" "$3" "$command"
  diff <(printf '%s\n' "$expected") <(printf '%s\n' "$actual") || true
  exit 1
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
