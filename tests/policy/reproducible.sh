#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# reproducible.sh TREE BUILD [TARGET...]: built once more, from a copy of the tree in another folder, library and program
# are the same to the byte as in BUILD, a release build: tests/policy/reproducible.sh "$PWD" "$PWD/build/release". The tests do
# it with the library, which takes seconds.
set -euo pipefail
tree=$1
build=$2
shift 2
[ $# -gt 0 ] || set -- libanti_cpu.so anti-cpu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/a-copy-with-a-longer-name"
cd "$work/a-copy-with-a-longer-name"
tar -C "$tree" --exclude=./build --exclude=./out --exclude=./.git -c . | tar -x
export CCACHE_DISABLE=1  # which would hand out the first build's objects
# The compiler flags and the linker that BUILD was made with.
mapfile -t flags < <(sed -n 's/^\(CMAKE_\(C\|CXX\)_COMPILER\|CMAKE_\(EXE\|SHARED\)_LINKER_FLAGS\|ATC_WERROR\|ATC_LIVE\):/-D&/p' "$build/CMakeCache.txt")
cmake -G Ninja -S . -B build/other "${flags[@]}" -DCMAKE_BUILD_TYPE=Release -DATC_BENCH=OFF -DBUILD_TESTING=OFF \
    --log-level=WARNING >/dev/null
cmake --build build/other --target "${@/libanti_cpu.so/anti_cpu}" >"$work/log" || { tail -n 30 "$work/log" >&2; exit 1; }
for file; do
    cmp "$build/$file" "build/other/$file"
done
