#!/usr/bin/env bash
# A manual page tells of every command and option that the program's --help tells of, and troff has nothing to object.
#
#   tests/scripts/manualTest.sh PAGE [PROGRAM]
set -euo pipefail

page=$1
program=${2-}
name=$(basename "$page")
failed=0

fail() {
  echo "$name: $1"
  failed=1
}

# section COMMAND...: the lines of the page about one command, or about the program's own options.
section() {
  local heading='.SH OPTIONS'
  if (($#)); then heading=".SS \\fB${*//-/\\-}\\fR"; fi
  HEADING=$heading awk '/^\.S[SH]/ { inside = ($0 == ENVIRON["HEADING"] || index($0, ENVIRON["HEADING"] " ") == 1) }
                        inside' "$page"
}

# names KIND HELP: the first words of the help's lines below the headings of that kind.
names() {
  awk -v kind="$1" '/^[A-Z][A-Za-z]*:$/ { inside = ($0 == kind ":") } inside && /^  [^ ]/ { print $1 }' <<<"$2"
}

# check COMMAND...: what --help says of it and of what is below it.
check() {
  local help text option subcommand
  help=$("$program" "$@" --help)
  text=$(section "$@")
  if [[ -z $text ]]; then fail "nothing about '$*'"; fi
  while IFS= read -r option; do
    option=${option##*,}
    option=${option%%\{*}
    if [[ $option == --help && $# -gt 0 ]]; then continue; fi
    grep -qF -- "\\fB${option//-/\\-}\\fR" <<<"$text" || fail "'$*' lacks $option"
  done < <(names Options "$help")
  while IFS= read -r option; do
    grep -qF -- "\\fI$option\\fR" <<<"$text" || fail "'$*' lacks $option"
  done < <(names Positionals "$help")
  while IFS= read -r subcommand; do
    check "$@" "$subcommand"
  done < <(names Subcommands "$help")
}

if [[ -n $program ]]; then check; fi
if command -v groff >/dev/null; then
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
  if [[ -n $warnings ]]; then fail "$warnings"; fi
fi
exit "$failed"
