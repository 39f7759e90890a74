#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# install.sh TREE BUILD: the installed library is found by pkg-config, find_package and add_subdirectory, from C and from C++,
# by gcc and by clang, and serves processes that hide their symbols.
set -euo pipefail
tree=$1
build=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
example=$tree/docs/example/card.c

cmake --install "$build" --prefix "$work/usr" >/dev/null
for installed in include/anti_cpu/{anti_cpu,card_check,platform,protocols,types,version}.h bin/anti-cpu share/man/man1/anti-cpu.1 \
    share/bash-completion/completions/anti-cpu share/anti-cpu/{grafana/anti-cpu.json,prometheus/anti-cpu.rules.yml}; do
    [ -f "$work/usr/$installed" ] || { echo "$installed is not installed" >&2; exit 1; }
done

run() {
    echo "-- $1"
    LD_LIBRARY_PATH=$(dirname "$(find "$work/usr" -name libanti_cpu.so)") timeout 60 "$1" >"$work/out"
}

PKG_CONFIG_PATH=$(dirname "$(find "$work/usr" -name anti_cpu.pc)")
export PKG_CONFIG_PATH
for compiler in gcc clang; do
    command -v "$compiler" >/dev/null || { echo "-- $compiler is not here"; continue; }
    # shellcheck disable=SC2046 # flags are words
    "$compiler" -std=c11 -Wall -Werror -fvisibility=hidden $(pkg-config --cflags anti_cpu) "$example" \
        $(pkg-config --libs anti_cpu) -pthread -o "$work/$compiler"
    run "$work/$compiler"
    grep -q 'over fast period limit' "$work/out"
    # shellcheck disable=SC2046
    "$compiler" -std=c11 -fvisibility=hidden -Dmain=no_main $(pkg-config --cflags anti_cpu) "$example" \
        $(pkg-config --libs anti_cpu) -lanti_cpu_card_check -pthread -o "$work/check"
    run "$work/check"
    grep ' 0 broken' "$work/out"
done
[ "$(pkg-config --modversion anti_cpu)" = "$(sed -n 's/^anti-cpu (\(.*\)) .*/\1/p;q' "$tree/debian/changelog")" ] ||
    { echo 'version.h and debian/changelog tell different versions' >&2; exit 1; }
for way in "-DCMAKE_PREFIX_PATH=$work/usr" "-DANTI_CPU_TREE=$tree"; do
    cmake -G Ninja -S "$here/consumer" -B "$work/build" -DEXAMPLE="$example" "$way" --log-level=WARNING >/dev/null
    cmake --build "$work/build" >"$work/out" || { cat "$work/out" >&2; exit 1; }
    run "$work/build/c_consumer"
    run "$work/build/cxx_consumer"
    run "$work/build/card_check"
    rm -rf "$work/build"
done
