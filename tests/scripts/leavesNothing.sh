#!/usr/bin/env bash
# Runs a program with a temporary directory of its own and fails if a file is left in it at the end. Reports of damage
# (memtab-corruption-*) are no failure: tests damage tables on purpose.
#
#   tests/scripts/leavesNothing.sh PROGRAM [ARGUMENT...]
#
# The exit status is that of the program, or 1 if the program succeeded and left files.
set -euo pipefail

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
export TMPDIR=$directory TEST_TMPDIR=$directory
status=0
"$@" || status=$?
left=$(find "$directory" -mindepth 1 ! -name 'memtab-corruption-*' -printf '  %P (%s bytes)\n' | sort)
if [[ -n $left ]]; then
  printf 'left in the temporary directory:\n%s\n' "$left" | head -n 20
  if ((status == 0)); then status=1; fi
fi
exit "$status"
