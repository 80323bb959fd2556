#compdef tunnelctl tunnel-agent
# Completion in zsh: the programs say themselves what may follow. Where they know nothing, it may be a file.
local -a candidates
candidates=("${(@f)$("${words[1]}" complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
candidates=("${(@)candidates:#}")
if (( $#candidates == 0 )); then
  _files
elif [[ ${candidates[1]} == *[/=] ]]; then
  compadd -S '' -a candidates
else
  compadd -a candidates
fi
