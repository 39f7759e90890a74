#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# portability.sh [--record] [TARGET...]: the module's unit tests on other processors, built by gcc and by clang, run by an
# emulator where this machine cannot; the library's size there, and the instructions that atc_init takes. Targets are
# those of cmake/cross.cmake, with "-clang" behind for clang; all of them when none is given.
# musl: the library, the example's card and the check of that card, without a C++ library.
# --record writes what came of it into docs/portability.txt, and draws the table in README.md from that.
set -euo pipefail
cd "$(dirname "$0")/.."
record=docs/portability.txt
build=build/portability
targets=(i386 i386-clang armhf armhf-clang aarch64 aarch64-clang powerpc powerpc-clang s390x s390x-clang musl)

configure() { # FOLDER TARGET ARGUMENTS...
    local folder=$1 target=$2 compiler=gcc
    shift 2
    [[ $target != *-clang ]] || compiler=clang
    mkdir -p "$build"
    cmake -G Ninja -S . -B "$folder" --log-level=WARNING -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/cross.cmake" \
        -DATC_CROSS="${target%-clang}" -DATC_CROSS_COMPILER=$compiler \
        -DATC_WERROR=ON -DATC_CARD=OFF -DATC_BENCH=OFF "$@" >"$folder.log" 2>&1 || { cat "$folder.log" >&2; exit 1; }
    cmake --build "$folder" -j"$(nproc)" >"$folder.log" 2>&1 || { grep -v '^\[' "$folder.log" | head -50 >&2; exit 1; }
}

# The row of cmake/cross.cmake: NAME|WORD AND ORDER|PREFIX|EMULATOR.
field() { grep -oE "\"${1%-clang}\|[^\"]*" cmake/cross.cmake | tr -d '"' | cut -d'|' -f"$2"; }

# Instructions from one call of atc_init to its return, loading what it calls and starting its task included: what an
# emulator executes one by one with the call, less what it executes without.
start_up() { # TARGET FOLDER
    local prefix emulator counts=() call libraries
    prefix=$(field "$1" 3)
    emulator=$(field "$1" 4)
    # i386 runs on the machine's own C library: with the cross compiler's, the emulator never leaves pthread_create.
    libraries=${emulator:+-L /usr/$prefix}
    printf '#include <unistd.h>\n#include "anti_cpu/anti_cpu.h"\nint main(int n, char **v) {\n%s\n}\n' \
        '(void)v; if (n > 1) atc_init(); _exit(0);' >"$2/start_up.c"
    "$prefix-gcc" -O2 -Dmain=example_main -Imodule/anti_cpu/include -c docs/example/card.c -o "$2/card.o"
    "$prefix-gcc" -O2 -Imodule/anti_cpu/include "$2/start_up.c" "$2/card.o" -L"$2" -lanti_cpu -pthread -o "$2/start_up"
    for call in '' call; do
        # shellcheck disable=SC2086 # arguments, or none
        counts+=("$(timeout 60 "${emulator:-qemu-i386}" $libraries -E LD_LIBRARY_PATH="$2" -singlestep \
            -d exec,nochain "$2/start_up" $call 2>&1 | grep -c '^Trace')") ||
            { echo "$1: atc_init did not return within a minute under the emulator" >&2; exit 1; }
    done
    echo $((counts[1] - counts[0]))
}

# What these targets need.
install_packages() {
    local target needed=()
    for target; do
        needed+=("$([ "$target" = musl ] && echo musl || echo "g++-$(field "$target" 3)")")
    done
    mkdir -p "$build"
    grep -E "^(clang|qemu|$(IFS='|'; echo "${needed[*]//+/\\+}"))" scripts/packages-portability.txt >"$build/packages"
    scripts/install-packages.sh scripts/packages.txt "$build/packages"
}

size_of() { size "$1/libanti_cpu.so" | awk 'NR == 2 { print $1 + $2 }'; }

# Leaves in 'passed' how many unit tests passed; ends the script when one did not.
unit_tests() { # TARGET
    configure "$build/$1" "$1" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG='-O1 -g0'
    ctest --test-dir "$build/$1" -L unit -j"$(nproc)" --no-tests=error >"$build/$1.log" 2>&1 ||
        { sed -n '/tests passed/,$p' "$build/$1.log" >&2; exit 1; }
    passed="$(sed -n 's/^100% tests passed, 0 tests failed out of //p' "$build/$1.log") tests"
}

musl() {
    configure "$build/musl" musl -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
    local program
    for program in example check; do
        # shellcheck disable=SC2046 # words, or none
        musl-gcc -std=c11 -Imodule/anti_cpu/include docs/example/card.c -L"$build/musl" -lanti_cpu -Wl,-rpath,"$PWD/$build/musl" \
            $([ $program = example ] || echo "-Dmain=example_main -L$build/musl/module/card_check -lanti_cpu_card_check") \
            -o "$build/musl/$program"
        timeout 60 "$build/musl/$program" >"$build/musl.log" || { cat "$build/musl.log" >&2; exit 1; }
    done
    passed=$(sed -n 's/^[0-9]* promises: \([0-9]*\) kept, 0 broken.*/\1 promises/p' "$build/musl.log")
}

compiler_of() { # TARGET
    case $1 in
        *-clang) clang -dumpversion ;;
        *) gcc -dumpfullversion ;;
    esac
}

write_down() { # LINE
    { grep -vE "^${1%% *} " "$record" || true; echo "$1"; } | LC_ALL=C sort >"$build/record"
    { echo '# target, compiler, what passed, bytes of text and data (release), instructions of atc_init'
      grep -v '^#' "$build/record"; } >"$record"
    scripts/portability-table.awk "$record" cmake/cross.cmake >"$build/table"
    awk -v table="$build/table" '/<!-- portability -->/ { print; while ((getline line < table) > 0) print line; skip = 1 }
        /<!-- end -->/ { skip = 0 } !skip || /<!-- end -->/' README.md >"$build/readme"
    cat "$build/readme" >README.md
}

recording=
[ "${1:-}" != --record ] || { recording=1; shift; }
[ $# -gt 0 ] || set -- "${targets[@]}"
install_packages "$@"
for target; do
    began=$SECONDS
    bytes=- instructions=-
    if [ "$target" = musl ]; then
        musl
        bytes=$(size_of "$build/musl")
    else
        unit_tests "$target"
        if [[ $target != *-clang ]]; then
            configure "$build/$target-release" "$target" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
            bytes=$(size_of "$build/$target-release")
            instructions=$(start_up "$target" "$build/$target-release")
        fi
    fi
    line="$target $(compiler_of "$target") ${passed/ /_} $bytes $instructions"
    echo "$line ($((SECONDS - began)) s)"
    [ -z "$recording" ] || write_down "$line"
done
