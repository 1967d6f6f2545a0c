#!/usr/bin/env bash
# library-calls.sh OUTPUT OBJECT...: of the library's objects, writes the names of the platform calls that those outside
# the layer make, as C++ texts, a line each.
set -eu
output=$1
shift
layer=() users=()
for object in "$@"; do
    case $object in */platform/* | */unity_platform_*) layer+=("$object") ;; *) users+=("$object") ;; esac
done
names() { nm -C "$@" | sed -nE 's/^[0-9a-f ]* [TWU] ([A-Za-z0-9_]+)\(.*/\1/p' | sort -u; }
comm -12 <(names --defined-only "${layer[@]}") <(names --undefined-only "${users[@]}") | sed 's/.*/"&",/' >"$output"
[ -s "$output" ]
