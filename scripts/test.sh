#!/usr/bin/env bash
# Builds everything (release) and runs all tests.
#
#   scripts/test.sh [ARGS...]     ARGS go to ctest, for instance: scripts/test.sh -R tunnel
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/setup.sh
cmake --preset release
cmake --build --preset release
ctest --preset release --parallel "$(nproc)" "$@"
