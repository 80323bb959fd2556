#!/usr/bin/env bash
# What "cmake --install" puts below a prefix can be used from there.
#
#   tests/scripts/installTest.sh SOURCE_DIR BUILD_DIR VERSION
set -euo pipefail

source_dir=$1 build_dir=$2 version=$3
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() {
  echo "$1"
  exit 1
}

DESTDIR=$root/dest cmake --install "$build_dir" --prefix /usr >"$root/log" || fail "$(cat "$root/log")"
usr=$root/dest/usr
for program in tunnel-agent tunnelctl; do
  [[ $("$usr/bin/$program" --version) == "$program $version" ]] || fail "$program is not version $version"
done
for page in man1/tunnelctl.1 man8/tunnel-agent.8 man1/fastlog.1 man5/tunnel-agent.conf.5; do
  gzip -dc "$usr/share/man/$page.gz" | grep -q "\"tunnel-agent $version\"" || fail "$page is no manual page"
done
for file in share/bash-completion/completions/tunnelctl share/bash-completion/completions/tunnel-agent \
  share/zsh/vendor-completions/_tunnel-agent share/doc/tunnel-agent/examples/abilene.jsonl; do
  [[ -s $usr/$file ]] || fail "$file is missing"
done

# The configuration as installed, and the unit with the programs where they are.
config=$root/dest/etc/tunnel-agent/tunnel-agent.conf
unit=$usr/lib/systemd/system/tunnel-agent.service
grep -q '^ExecStart=/usr/bin/tunnel-agent serve .* --config /etc/tunnel-agent/tunnel-agent.conf$' "$unit" ||
  fail "the unit starts something else"
if command -v systemd-analyze >/dev/null; then
  sed "s|/usr/bin/tunnel-agent|$usr/bin/tunnel-agent|" "$unit" >"$root/tunnel-agent.service"
  systemd-analyze verify --man=no "$root/tunnel-agent.service" || fail "the unit has errors"
fi
"$usr/bin/tunnel-agent" serve --state-dir "$root/state" --config "$config" 2>"$root/agent.log" &
agent=$!
"$usr/bin/tunnelctl" publish --state-dir "$root/state" "$usr/share/doc/tunnel-agent/examples/abilene.jsonl" >"$root/log"
for ((tries = 0; tries < 2000; tries++)); do
  if grep -q ready "$root/agent.log"; then break; fi
  sleep 0.01
done
kill "$agent"
wait "$agent" || fail "$(cat "$root/agent.log")"
[[ -s $root/state/tunnel/tunnelFib ]] || fail 'no FIB'

# What the operator has changed stays.
echo '# mine' >"$config"
DESTDIR=$root/dest cmake --install "$build_dir" --prefix /usr >"$root/log"
[[ $(cat "$config") == '# mine' ]] || fail 'the configuration was overwritten'

# The library is found.
cmake -S "$source_dir/examples/embed" -B "$root/embed" -DTUNNEL_AGENT_INSTALLED=ON "-DCMAKE_PREFIX_PATH=$usr" \
  ${CXX:+"-DCMAKE_CXX_COMPILER=$CXX"} >"$root/log" 2>&1 || fail "$(cat "$root/log")"
if [[ -n ${BUILD_EMBED-} ]]; then
  cmake --build "$root/embed" >"$root/log" 2>&1 || fail "$(cat "$root/log")"
  FASTLOG_DISABLE=1 "$root/embed/embed" | diff -u "$source_dir/examples/embed/expected.txt" -
fi
