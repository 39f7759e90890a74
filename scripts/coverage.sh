#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Branches of module, card and host that the tests take: the preset coverage is built and tested, then gcovr reads what
# was counted. scripts/coverage.sh [--details FOLDER] writes pages of every line, too. A branch that only an exception
# takes does not count.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset coverage --log-level=WARNING
cmake --build --preset coverage -j"$(nproc)"
find build/coverage -name '*.gcda' -delete
ctest --test-dir build/coverage -L "unit|system|model|threads|fuzz|live" -E 'live\.(demonstration|fleet)' --output-on-failure --no-tests=error -j"$(nproc)" | tail -n 20
ctest --test-dir build/coverage -R '^policy\.(reference|denies|man|completion)' --output-on-failure --no-tests=error | tail -n 5
details=()
if [ "${1:-}" = --details ]; then
  mkdir -p "$2"
  details=(--html-details "$2/index.html")
fi
# What draws a page while the tree is built is not counted: it runs before the tests.
only=(--root . --exclude host/draw_denies.cpp --exclude-throw-branches --exclude-unreachable-branches)
gcovr "${only[@]}" --object-directory build/coverage --filter '(module|platform|host)/' -j"$(nproc)" --json build/coverage/taken.json \
  build/coverage
for part in module platform host; do
  printf '\n==== %s\n' "$part"
  gcovr "${only[@]}" --add-tracefile build/coverage/taken.json --filter "$part/" --branches --print-summary
done
[ ${#details[@]} -eq 0 ] || gcovr "${only[@]}" --add-tracefile build/coverage/taken.json "${details[@]}"
