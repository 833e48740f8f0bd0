#!/usr/bin/env bash
# Compares what the shipped libraries export and how they are linked with what they promise.
#
# usage: check-exports.sh BUILD_FOLDER
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
lib=$1/lib
failed=0

complain() {
    echo "check-exports: $*" >&2
    failed=1
}

# The names between "global:" and "local:" of a version script.
promised() {
    sed -n '/global:/,/local:/p' "$1" | grep -oE '[A-Za-z_][A-Za-z_0-9]*;' | tr -d ';' | grep -v '^\*$' | sort
}

check_library() { # library, version script, allowed NEEDED names...
    local library=$1 map=$2 difference needed header
    shift 2
    difference=$(diff <(promised "$map") \
        <(nm -D --defined-only "$library" | awk '{ print $3 }' | sed 's/@.*//' | sort)) ||
        complain "$library exports another set of names ('<' promised, '>' exported):"$'\n'"$difference"
    while read -r needed; do
        [[ " $* " == *" $needed "* ]] || complain "$library links to $needed"
    done < <(readelf -d "$library" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p')
    header=$(readelf -dlW "$library")
    grep -qE '\((RPATH|RUNPATH)\)' <<<"$header" && complain "$library has a run-time search path"
    grep -q 'GNU_RELRO' <<<"$header" || complain "$library is linked without relro"
    grep -qE '\(FLAGS_1\).*NOW|\(BIND_NOW\)' <<<"$header" || complain "$library is linked without now"
    grep -qE 'GNU_STACK.* RW ' <<<"$header" || complain "$library has an executable stack"
    grep -qE '\(FLAGS_1\).*NOOPEN' <<<"$header" && complain "$library cannot be opened at run time"
    return 0
}

check_library "$lib/libtimefinder_fim.so" "$top/method/exports.map" \
    libtessera_host.so libstdc++.so.6 libgcc_s.so.1 libc.so.6 libdl.so.2
readelf -d "$lib/libtimefinder_fim.so" | grep -q 'SYMBOLIC' ||
    complain "libtimefinder_fim.so binds its own names late: a name in the host process could capture one"
check_library "$lib/libtessera_host.so" "$top/host/exports.map" libstdc++.so.6 libgcc_s.so.1 libc.so.6
exit $failed
