#!/usr/bin/env bash
# Completion in bash, as a shell does it: words on the line, and what it offers.
#
#   tests/scripts/completionTest.sh SOURCE_DIR BIN_DIR
set -euo pipefail

source_dir=$1
PATH=$2:$PATH
scratch=$(mktemp -d)
# An agent makes again what is removed under it: it ends first.
trap 'kill ${agent-} 2>/dev/null || true; wait; rm -rf "$scratch"' EXIT
# shellcheck source=/dev/null
source "$source_dir/packaging/completion/tunnel-agent.bash"
failed=0

# expect OFFER... -- WORD...: the last word is completed to the offers, in any order.
expect() {
  local offers=()
  while [[ $1 != -- ]]; do
    offers+=("$1")
    shift
  done
  shift
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  _tunnel_agent
  if [[ $(printf '%s\n' "${offers[@]-}" | sort) != "$(printf '%s\n' "${COMPREPLY[@]-}" | sort)" ]]; then
    echo "$*: offers ${COMPREPLY[*]-nothing}, not ${offers[*]-nothing}"
    failed=1
  fi
}

echo '{"rib": "low latency", "tables": {"ldp": {}}}' >"$scratch/rib.jsonl"
tunnel-agent serve --state-dir "$scratch/state" --config "$scratch/rib.jsonl" 2>"$scratch/log" &
agent=$!
for ((tries = 0; tries < 2000; tries++)); do
  if grep -q ready "$scratch/log"; then break; fi
  sleep 0.01
done

expect serve -- tunnel-agent s
expect --state-dir -- tunnel-agent serve --st
expect table tables -- tunnelctl show ta
expect ldp -- tunnelctl show table ld
expect --state-dir -- tunnelctl show rib system --st
expect system -- tunnelctl show rib --state-dir "$scratch/state" sy
expect 'low\ latency' ldpTunnel -- tunnelctl resolve --state-dir "$scratch/state" --rib l
expect system -- tunnelctl resolve --state-dir = "$scratch/state" --rib = sy
expect ldpTunnel -- tunnelctl show fib --type ldp
expect ldpTunnel/ -- tunnelctl why ldp
expect noPush -- tunnelctl show unprogrammable --reason noP
expect intf -- tunnelctl what-if --each ''
expect TunnelFibSm= -- tunnelctl trace set --state-dir "$scratch/state" TunnelF
expect -- tunnelctl show rib --state-dir "$scratch/none" sy
expect -- tunnelctl publish exam
exit "$failed"
