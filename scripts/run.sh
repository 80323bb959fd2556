#!/usr/bin/env bash
# Builds the agent (release) if it is not up to date and runs it.
#
#   scripts/run.sh             runs examples/abilene.jsonl
#   scripts/run.sh ARGS...     runs tunnel-agent run ARGS...; relative paths refer to the current directory
#
# Standard output is the agent's alone; a build says something only when it fails or has more to do than a check.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release

# Configures and builds; ninja itself configures again when a build file changes.
buildAgent() {
  cd "$root"
  if [[ ! -f $build/build.ninja ]]; then cmake --preset release; fi
  cmake --build --preset release --target tunnel-agent
}

"$root/scripts/setup.sh"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if [[ ! -x $build/bin/tunnel-agent ]]; then echo "building tunnel-agent, this takes a while the first time" >&2; fi
if ! (buildAgent) >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
rm -f "$log"

if (($# == 0)); then set -- "$root/examples/abilene.jsonl"; fi
exec "$build/bin/tunnel-agent" run "$@"
