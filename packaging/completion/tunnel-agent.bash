# Completion in bash for tunnelctl and tunnel-agent: the programs say themselves what may follow. Where they know nothing,
# it may be a file.
_tunnel_agent() {
  local word
  COMPREPLY=()
  while IFS= read -r word; do
    COMPREPLY+=("$(printf '%q' "$word")")
  done < <("${COMP_WORDS[0]}" complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
  # More is to come behind the type of a tunnel's id, and behind the source of a trace level.
  if [[ ${COMPREPLY[0]-} == *[/=] ]]; then compopt -o nospace 2>/dev/null || true; fi
}
complete -o default -F _tunnel_agent tunnelctl tunnel-agent
