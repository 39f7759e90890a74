#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests. ./test.sh [PRESET [CTEST ARGUMENTS...]]; the presets are listed by
# `cmake --list-presets`, the default is debug.
set -euo pipefail
cd "$(dirname "$0")"

preset=${1:-debug}
[ $# -eq 0 ] || shift
scripts/install-packages.sh
cmake --preset "$preset" --log-level=WARNING
cmake --build --preset "$preset" -j"$(nproc)"
ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j"$(nproc)" "$@"
