# shellcheck shell=bash
# The checks, one function each: silent and 0 when all is well.

readonly build=build/dev
readonly shipped=(include fim_config convert snap symapi method host)
readonly own=(fimctl lab)

# C++ files under the given folders.
sources() {
    git ls-files -- "${@/%//*.cpp}" "${@/%//*.h}"
}

check_format() {
    local files
    mapfile -t files < <(sources "${shipped[@]}" "${own[@]}" tests fuzz conformance proof bench)
    clang-format-14 --dry-run --Werror "${files[@]}"
}

# A file stays below 450 lines; longer operations are split by what they do.
check_lengths() {
    local long
    long=$(git ls-files -- '*.cpp' '*.h' '*.sh' 'tools/*' dev | xargs wc -l |
        awk '$2 != "total" && $1 > 450 { print $2 ": " $1 " lines, at most 450" }')
    printf '%s' "$long"
    [ -z "$long" ]
}

# Text functions without a bound, and shells or programs started past the one runner.
check_functions() {
    local found
    found=$(
        git grep -nE '\b(strcpy|strcat|sprintf|vsprintf|gets|stpcpy|alloca|mktemp|tmpnam)[[:space:]]*\(' \
            -- '*.cpp' '*.h' '*.c'
        # Exceptions and throwing allocation have no place in what ships.
        git grep -nE '\bthrow\b|\bnew [A-Za-z_:]|std::(string|vector|map|set|function)\b' -- \
            "${shipped[@]}" | grep -vE '^[^:]+:[0-9]+: *(//|\*)'
        # system() belongs to the command runner and the quiesce commands alone.
        git grep -nE '[^_a-z]system[[:space:]]*\(' -- "${shipped[@]}" |
            grep -vE '^(method/command\.cpp|snap/[a-z_]+\.cpp):|^[^:]+:[0-9]+: *//'
    )
    printf '%s' "$found"
    [ -z "$found" ]
}

# Which folder may include from which: the map in ARCHITECTURE.md.
check_arrows() {
    declare -A may=(
        [include]=""
        [fim_config]="include"
        [convert]="include"
        [snap]="include"
        # The session reports through the method, and knows nothing of discovery and lifecycle.
        [symapi]="include method/report method/log method/interface method/numbers method/paths method/text"
        [method]="include fim_config convert snap symapi"
        [host]="include"
        [fimctl]="include/timefinder include/symapi"
        [lab/common]=""
        [lab/array/model]="include/symapi"
        [lab/array/transport]=""
        [lab/array/store]="lab/array/model"
        [lab/array/media]="lab/array/model lab/common"
        [lab/array/daemon]="include/symapi lab/array/model lab/array/store lab/array/media lab/array/transport"
        [lab/array/client]="include/symapi lab/array/model/codes lab/array/transport"
        [lab/array/admin]="lab/array/model/codes lab/array/transport"
        [lab/host]="lab/common"
        [lab/qzvm]="lab/common"
        [lab/tessera]="include/symapi lab/qzvm lab/common"
    )
    declare -A of_folder=(
        [timefinder.h]=include [records.h]=include [symapi.h]=include [tessera_host.h]=include
    )
    local found="" line file header folder target allowed ok
    while IFS= read -r line; do
        file=${line%%:*}
        header=$(sed -E 's/.*#include "([^"]+)".*/\1/' <<<"$line")
        [ -n "${of_folder[$header]:-}" ] && header=include/$header
        folder=${file%/*}
        while [ -z "${may[$folder]+x}" ] && [[ $folder == */* ]]; do folder=${folder%/*}; done
        [ -n "${may[$folder]+x}" ] || continue
        [[ $header == "$folder"/* ]] && continue
        [[ $header != */* && -f $folder/$header ]] && continue
        ok=no
        for allowed in ${may[$folder]}; do
            target=${header%.*}
            [[ $target == "$allowed" || $target == "$allowed"/* ]] && ok=yes
        done
        [ $ok = yes ] || found+="$file must not include \"$header\""$'\n'
    done < <(git grep -nE '^#include "' -- "${shipped[@]}" fimctl lab)
    printf '%s' "$found"
    [ -z "$found" ]
}

# Things that stay out of the project, and work left open.
check_words() {
    local found
    found=$(
        git grep -nIE '\b(TODO|FIXME|XXX|HACK)\b' -- ':!tools/checks.sh'
        git grep -nIiE '\bpart [1-7]\.[1-7]\b|\b(the|our|this) spec(ification)?\b' -- ':!tools/checks.sh'
        git ls-files | grep -E '(^|/)(build|out)/|\.(o|a|so|img|log)$'
    )
    printf '%s' "$found"
    [ -z "$found" ]
}

check_shell() {
    local files
    mapfile -t files < <({
        git ls-files -- '*.sh'
        git grep -lE '^#!.*\b(bash|sh)$' -- ':!*.cpp' ':!*.h' ':!*.md'
    } | sort -u)
    shellcheck -x "${files[@]}"
}

configured() { # preset
    [ -f "build/$1/build.ninja" ] || cmake --preset "$1"
}

# Everything builds with the second compiler too, warnings being errors.
check_clang() {
    configured clang && cmake --build build/clang
}

# Optimised as it ships, where the compiler sees further.
check_release() {
    configured release &&
        cmake --build build/release --target timefinder_fim tessera_host fimctl tflab tfarray tfarrayd &&
        tools/check-exports.sh build/release
}

check_exports() {
    configured dev && cmake --build $build --target timefinder_fim tessera_host &&
        tools/check-exports.sh $build
}

check_cppcheck() {
    cppcheck --quiet --std=c++20 --language=c++ --enable=warning,performance,portability \
        --inline-suppr --error-exitcode=1 --suppressions-list=tools/cppcheck.suppressions \
        -DTF_BINARY_DIR='""' -D__GNUC__=12 -I. -Iinclude -j 2 "${shipped[@]}" fimctl lab
}

check_tidy() {
    local files
    # What the second compiler has read in advance is what clang-tidy reads too.
    check_clang || return 1
    mapfile -t files < <(git ls-files -- "${shipped[@]/%//*.cpp}" 'fimctl/*.cpp' 'lab/*.cpp')
    printf '%s\n' "${files[@]}" | xargs -P 2 -n 1 clang-tidy-14 --quiet -p build/clang \
        --warnings-as-errors='*'
}
