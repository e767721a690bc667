#!/usr/bin/env bash
# exports_check.sh NM LIBRARY NAMES-FILE INCLUDE-DIR: the library's defined dynamic symbols are exactly
# the names listed (one per line, '#' comments), each listed once; and every public header under
# INCLUDE-DIR that declares C functions marks them visible, since the library is built with hidden
# visibility and a name declared elsewhere cannot be exported.
set -euo pipefail
nm=$1 lib=$2 names=$3 include=$4
listed=$(grep -v -e '^#' -e '^[[:space:]]*$' "$names" | tr -d '[:blank:]' | sort)
defined=$("$nm" -D --defined-only "$lib" | awk '{print $NF}' | sort -u)
twice=$(uniq -d <<<"$listed")
missing=$(comm -23 <(uniq <<<"$listed") <(cat <<<"$defined"))
extra=$(comm -13 <(uniq <<<"$listed") <(cat <<<"$defined"))
unmarked=$(for header in "$include"/*.h; do
    if grep -q 'extern "C"' "$header" && ! grep -q '^#pragma GCC visibility push(default)' "$header"; then
        echo "$header"
    fi
done)

count() { [ -z "$1" ] && echo 0 || wc -l <<<"$1"; }
[ -z "$twice" ] || sed 's/^/listed twice: /' <<<"$twice"
[ -z "$missing" ] || sed 's|$| (not exported: its prototype belongs in a header under include/qvagent/)|; s/^/missing export: /' <<<"$missing"
[ -z "$extra" ] || sed 's/^/unlisted export: /' <<<"$extra"
[ -z "$unmarked" ] || sed "s/\$/ declares C functions without '#pragma GCC visibility push(default)'/" <<<"$unmarked"
total=$(count "$(uniq <<<"$listed")")
echo "$((total - $(count "$missing"))) of $total names exported by $(basename "$lib"), $(count "$extra") other symbols exported"
[ -z "$twice$missing$extra$unmarked" ]
