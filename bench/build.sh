# SPDX-License-Identifier: Apache-2.0
# build.sh: sourced by the scripts beside it.

bench_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bench_page=$bench_root/docs/performance.md

# What the options that most scripts share say.
build=$bench_root/build/bench
built=no
markdown=no

# own_option WORD...: a script with options of its own takes one from the front of a command line, and sets $taken to how
# many words that was.
own_option() { :; }

# take_options WORD...: takes a whole command line: --build DIR, --built, --markdown, --help (usage), and own options.
take_options() {
    local taken
    while [ $# -gt 0 ]; do
        taken=0
        own_option "$@"
        case $taken$1 in
            0--markdown) markdown=yes; taken=1 ;;
            0--build) build=${2:?--build needs a directory}; taken=2 ;;
            0--built) built=yes; taken=1 ;;
            0--help) usage; exit 0 ;;
            0*) usage >&2; exit 2 ;;
        esac
        shift "$taken"
    done
}

# build_programs DIR [TARGET...]: builds the benchmarks, or these targets, of the release preset in DIR.
build_programs() {
    local dir=$1
    shift
    [ $# -gt 0 ] || set -- bench
    # Figures do not wait for a compiler's warnings; the other builds do.
    (cd "$bench_root" && cmake --preset release -B "$dir" -DATC_WERROR=OFF --log-level=WARNING) >/dev/null
    if ! cmake --build "$dir" -j"$(nproc)" --target "$@" >"$dir/bench-build.log" 2>&1; then
        cat "$dir/bench-build.log" >&2
        return 1
    fi
}

# machine DIR: what the figures of the programs in DIR were taken on, as a list. $load is the load before.
machine() {
    local compiler
    compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[^=]*=//p' "$1/CMakeCache.txt")
    echo "- processor: $(sed -n 's/^model name[^:]*: *//p' /proc/cpuinfo | head -1), $(nproc) cores"
    echo "- compiler: $("$compiler" --version | head -1), release preset"
    echo "- system: Linux $(uname -r), C library $(getconf GNU_LIBC_VERSION), $(valgrind --version 2>/dev/null)"
    echo "- date: $(date -u +%Y-%m-%d); load average before: $load"
}

# has_section NAME: whether the page on performance has the two markers of this section; complains when not.
has_section() {
    grep -q "^<!-- $1: begin -->$" "$bench_page" && grep -q "^<!-- $1: end -->$" "$bench_page" ||
        { echo "no markers '$1' in $bench_page" >&2; return 1; }
}

# paste_section NAME FILE: puts FILE between the markers of this section.
paste_section() {
    local page
    has_section "$1" || return 1
    page=$(awk -v begin="<!-- $1: begin -->" -v end="<!-- $1: end -->" -v text="$2" '
        $0 == end { inside = 0 }
        !inside { print }
        $0 == begin { inside = 1; while ((getline line < text) > 0) print line }' "$bench_page") || return 1
    printf '%s\n' "$page" >"$bench_page"
    echo "written to docs/performance.md, $1" >&2
}
