#!/usr/bin/env bash
# Refuses source lines that break a rule of the house which the compilers cannot check.
#
#   scripts/checkSources.sh [ROOT]     ROOT: the tree to check, by default this repository
#
# Prints file:line: text of every offending line under the rule it breaks; exit code 1 if there was one.
# Comments behind // are not looked at.
set -euo pipefail

root=${1:-$(dirname "${BASH_SOURCE[0]}")/..}
cd "$root"

lineMax=500
library=(runtime tunnel tunnel_table_sm)
logic=(tunnel tunnel_table_sm)
everything=(runtime tunnel tunnel_table_sm agent tools tests bench examples)
failed=0

# sources FOLDER...: the C++ files below those of the folders that exist, one a line.
sources() {
  local folder
  for folder in "$@"; do
    if [[ -d $folder ]]; then find "$folder" -type f \( -name '*.h' -o -name '*.cpp' \); fi
  done | LC_ALL=C sort
}

# refuse RULE PATTERN FOLDER...: no line of the sources below the folders may match the (awk) pattern.
refuse() {
  local rule=$1 pattern=$2 files found
  shift 2
  mapfile -t files < <(sources "$@")
  if ((${#files[@]} == 0)); then return; fi
  found=$(PATTERN=$pattern awk '{ code = $0; sub(/\/\/.*/, "", code) }
                                code ~ ENVIRON["PATTERN"] { print "  " FILENAME ":" FNR ": " $0 }' "${files[@]}")
  if [[ -n $found ]]; then
    printf '%s:\n%s\n' "$rule" "$found"
    failed=1
  fi
}

word='(^|[^A-Za-z0-9_])'
refuse 'time comes from the scheduler, not from a clock' \
  '_clock::now|'"$word"'(time *\((nullptr|NULL|0|&)|(gettimeofday|clock_gettime) *\()' "${logic[@]}"
refuse 'nothing is random here' "$word"'(s?rand(om)?(_r)? *\(|random_device|mt19937)' "${logic[@]}"
refuse 'all logic runs on one thread' \
  'std::(thread|jthread|mutex|async|condition_variable)|thread_local' "${logic[@]}"
refuse 'the library depends on C++20 and the system alone' \
  '#include *[<"](nlohmann|CLI|gtest|gmock|benchmark|absl)/' "${library[@]}"
refuse 'includes are rooted at the repository' '#include *"([.]|[^/"]*")' "${everything[@]}"

while read -r count file; do
  if ((count > lineMax)) && [[ $file != total ]]; then
    printf 'files have at most %d lines:\n  %s has %d\n' "$lineMax" "$file" "$count"
    failed=1
  fi
done < <(sources "${everything[@]}" | xargs -r wc -l)

exit "$failed"
