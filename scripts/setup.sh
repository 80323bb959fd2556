#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, those that are missing only.
#
#   scripts/setup.sh          to build, run and test
#   scripts/setup.sh --ci     also what the checks of .ci/run need
#
# Says nothing when all are there. Uses sudo when it is not run as root. All output goes to stderr.
set -euo pipefail
exec 1>&2

packages=(cmake ninja-build g++ libcli11-dev nlohmann-json3-dev libgtest-dev libbenchmark-dev libabsl-dev)
case ${1-} in
  '') ;;
  --ci) packages+=(clang clang-format dpkg-dev) ;;
  *)
    echo "usage: ${BASH_SOURCE[0]} [--ci]"
    exit 2
    ;;
esac

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
  echo "setup: no Debian system; the build needs what Debian has as: ${packages[*]}"
  exit 0
fi

isInstalled() { [[ $(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

missing=()
for package in "${packages[@]}"; do
  isInstalled "$package" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then exit 0; fi

asRoot=(env DEBIAN_FRONTEND=noninteractive)
if ((EUID != 0)); then
  if ! command -v sudo >/dev/null; then
    echo "setup: cannot install without root or sudo; run as root: apt-get install ${missing[*]}"
    exit 1
  fi
  asRoot=(sudo "${asRoot[@]}")
fi

echo "setup: installing ${missing[*]}"
"${asRoot[@]}" apt-get update -qq || echo "setup: apt-get update failed; trying with the package lists at hand"
if ! "${asRoot[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; then
  echo "setup: could not install ${missing[*]}"
  exit 1
fi
