#!/usr/bin/env bash
# Fails if scripts/checkSources.sh stops seeing a kind of line that it is there to refuse, or refuses a good one.
set -euo pipefail

check=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../scripts" && pwd)/checkSources.sh
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
failed=0

# expect accepted|refused FILE LINE: the verdict on a tree whose only source is FILE with that one LINE.
expect() {
  local verdict=accepted
  rm -rf "${tree:?}"/*
  mkdir -p "$tree/$(dirname "$2")"
  printf '%s\n' "$3" >"$tree/$2"
  "$check" "$tree" >"$tree/said" || verdict=refused
  if [[ $verdict != "$1" ]]; then
    printf '%s, not %s: %s: %s\n' "$verdict" "$1" "$2" "$3"
    failed=1
  fi
}

expect refused tunnel/A.h 'auto t = std::chrono::steady_clock::now();'
expect refused tunnel_table_sm/A.cpp 'auto t = time(nullptr);'
expect accepted runtime/Quor/A.cpp 'auto t = std::chrono::steady_clock::now();'
expect accepted tunnel/A.h 'Seconds t = clock.time() + lifetime(a);  // not steady_clock::now()'
expect refused tunnel/A.h 'int i = rand();'
expect refused tunnel_table_sm/deeper/A.cpp 'std::mt19937 engine;'
expect accepted tunnel/A.h 'bool operand(int a);'
expect refused tunnel_table_sm/A.h 'std::thread worker;'
expect accepted tests/tunnel/ATest.cpp 'std::thread reader;'
expect refused runtime/Zol/A.h '#include <nlohmann/json.hpp>'
expect accepted agent/A.h '#include <nlohmann/json.hpp>'
expect refused agent/A.cpp '#include "../tunnel/TunnelId.h"'
expect refused agent/A.cpp '#include "A.h"'
expect accepted agent/A.cpp '#include "agent/A.h"'
expect accepted agent/A.cpp "$(seq 500)"
expect refused agent/A.cpp "$(seq 501)"

exit "$failed"
