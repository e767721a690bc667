#!/bin/sh
# exports_check.sh NM LIBRARY NAMES-FILE: every name listed (one per line, '#' comments) is a defined
# dynamic symbol of the library.
set -eu
nm=$1 lib=$2 names=$3
defined=$("$nm" -D --defined-only "$lib" | awk '{print $NF}')
missing=0
total=0
for name in $(grep -v '^#' "$names"); do
    total=$((total + 1))
    if ! printf '%s\n' "$defined" | grep -qx "$name"; then
        echo "missing export: $name"
        missing=$((missing + 1))
    fi
done
echo "$((total - missing)) of $total names exported by $(basename "$lib")"
[ "$missing" -eq 0 ]
