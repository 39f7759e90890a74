#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds, and runs all tests. ./test.sh [PRESET [CTEST ARGUMENTS...]]; the presets are listed by
# `cmake --list-presets`, the default is debug.
set -euo pipefail
cd "$(dirname "$0")"

preset=${1:-debug}
[ $# -eq 0 ] || shift
scripts/install-packages.sh scripts/packages.txt scripts/packages-test.txt
cmake --preset "$preset" --log-level=WARNING
cmake --build --preset "$preset" -j"$(nproc)"
status=0
ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j"$(nproc)" "$@" || status=$?
# Why a test could not run here.
sed -n 's/^skipped: /&/p' "build/$preset/Testing/Temporary/LastTest.log" | sort -u
exit $status
