#!/usr/bin/env bash
# Builds the Debian packages tunnel-agent and libtunnel-agent-dev (release) and checks what is in them.
#
#   scripts/package.sh [DIRECTORY]     DIRECTORY: where they go, by default build/release/packages
#
# Prints the paths of the packages. Needs dpkg-dev; lintian looks at them where it is installed.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=build/release
out=$(realpath -m "${1:-$build/packages}")
if [[ ! -f $build/build.ninja ]]; then cmake --preset release >&2; fi
cmake --build --preset release --target tunnel-agent tunnelctl fastlog manual tunnel_table_sm >&2
rm -rf "$out"
mkdir -p "$out"
(cd "$build" && cpack -G DEB -B "$out" >&2)
rm -rf "$out/_CPack_Packages"

# holds PACKAGE FILE...: the package has these.
holds() {
  local list file
  list=$(dpkg-deb -c "$out/$1"_*.deb)
  shift
  for file in "$@"; do
    grep -q " \./$file$" <<<"$list" || {
      echo "package: no $file" >&2
      exit 1
    }
  done
}
holds tunnel-agent usr/bin/{tunnel-agent,tunnelctl,fastlog} usr/lib/systemd/system/tunnel-agent.service \
  etc/tunnel-agent/tunnel-agent.conf usr/share/man/man1/tunnelctl.1.gz usr/share/man/man8/tunnel-agent.8.gz \
  usr/share/bash-completion/completions/tunnelctl
holds libtunnel-agent-dev usr/include/tunnel-agent/runtime/Zol/Ptr.h \
  usr/include/tunnel-agent/tunnel_table_sm/TunnelFibSm.h
if command -v lintian >/dev/null; then lintian --fail-on error "$out"/*.deb >&2; fi
printf '%s\n' "$out"/*.deb
