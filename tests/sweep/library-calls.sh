#!/usr/bin/env bash
# library-calls.sh SOURCES OUTPUT OBJECT...: the names of the platform calls, those of the headers that platform/Platform.h
# shows, that the library's objects outside the layer make, as C++ texts, a line each.
set -eu
sources=$1 output=$2
shift 2
users=()
for object in "$@"; do
    case $object in */platform/* | */unity_TQLib_platform_*) ;; *) users+=("$object") ;; esac
done
declared() {
    sed -nE 's/^#include "(TQLib\/platform\/linux\/.*)"/\1/p' "$sources/TQLib/platform/Platform.h" |
        (cd "$sources" && xargs cat) | sed -nE 's/.*TQLIB_API [^(]*\b([A-Za-z0-9_]+)\(.*/\1/p' | sort -u
}
made() { nm -C --undefined-only "${users[@]}" | sed -nE 's/^ *U Quellan::Platform::([A-Za-z0-9_]+)\(.*/\1/p' | sort -u; }
calls=$(comm -12 <(declared) <(made) | sed 's/.*/"&",/')
[ -n "$calls" ]
# What includes it is compiled anew only where it has changed.
[ "$calls" = "$(cat "$output" 2>/dev/null)" ] || echo "$calls" >"$output"
