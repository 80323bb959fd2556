#!/usr/bin/env bash
# Runs the long forms of the random tests, one after the other: hours. Needs the release build (scripts/test.sh).
#
#   scripts/soak.sh [NAME...]     those named below only
#
# TEST_SEEDS is the number of seeds of every random test, see tests/support/Seeds.h. A variable of a row that is set
# already keeps its value: TEST_SEEDS=10000 scripts/soak.sh kills. Exit status 1 when a row failed. Then its whole output
# is shown, with the command lines that repeat the failures.
set -euo pipefail

# Name, program, tests, and how long they are.
rows='
collections zol_tests           *behavesAsASortedMap:*Value*                  TEST_SEEDS=500
engine    memtab_tests          *equalsMap:MemtabCursor*:MemtabStop*:MemtabFollower.mirror*  TEST_SEEDS=500
crashes   memtab_tests          MemtabCrash*:MemtabHostile*                   TEST_SEEDS=1000
doorbell  memtab_tests          MemtabDoorbell.wakesWhoSleeps                 TEST_SEEDS=500
kills     memtab_tests          MemtabKill*                                   TEST_SEEDS=1000
ribs      tunnel_table_sm_tests RibRandom*:RibReader*                         TEST_SEEDS=20000
fibs      tunnel_table_sm_tests FibRandom*                                    TEST_SEEDS=20000
lines     agent_tests           ScenarioLine*                                 TEST_SEEDS=1000
flips     tools_tests           ServeFlip*                                    TEST_SEEDS=10000
rounds    tools_tests           Serve.killedAtAnyTime*:Serve.aReaderAtFullSpeed*  TEST_SEEDS=2000
late      tools_tests           *LateNews*                                    TEST_SEEDS=2000
settles   tools_tests           *ServeScenario*                               SERVE_EVERY_SETTLE=1
restart   tools_tests           Serve.aRestartOverManyTunnels*                SERVE_RESTART_TUNNELS=100000
shadow    tools_tests           *ShadowExample*                               SHADOW_STEPS=1000
requests  tools_tests           Control.requestsLeaveNothingBehind            CONTROL_REQUESTS=1000000
overload  tunnel_table_sm_tests *FullFib.delaysNoOtherChange*                 OVERLOAD_SECONDS=3600
'
tests=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build/release/tests
output=$(mktemp)
trap 'rm -f "$output"' EXIT

known=$(awk 'NF { print $1 }' <<<"$rows")
for name in "$@"; do
  if ! grep -qx -- "$name" <<<"$known"; then
    printf 'soak.sh: no row %s; there are:\n%s\n' "$name" "$known" >&2
    exit 2
  fi
done

# soak NAME PROGRAM FILTER VARIABLE=VALUE: what the tests print of themselves, and how it ended.
soak() {
  local name=$1 program=$2 filter=$3 variable=${4%%=*} begin=$SECONDS ended=passed
  local setting=$variable=${!variable:-${4#*=}}
  echo "== $name: $setting $program --gtest_filter=$filter"
  env "$setting" "$tests/$program" --gtest_filter="$filter" >"$output" 2>&1 || ended=FAILED
  if ! grep -q '^\[  PASSED  \] [1-9]' "$output"; then ended=FAILED; fi
  if [[ $ended == FAILED ]]; then
    cat "$output"
  else
    grep -Ev '^(\[|Note:|Running main|$)' "$output" || true
    grep '^\[  PASSED  \]' "$output"
  fi
  echo "== $name: $ended after $((SECONDS - begin)) s"
  [[ $ended == passed ]]
}

failed=0
while read -r name program filter setting; do
  if [[ -n $name ]] && { (($# == 0)) || [[ " $* " == *" $name "* ]]; }; then
    soak "$name" "$program" "$filter" "$setting" </dev/null || failed=1
  fi
done <<<"$rows"
exit "$failed"
