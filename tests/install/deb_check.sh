#!/usr/bin/env bash
# deb_check.sh CPACK BUILD-DIR WORK-DIR: builds the build tree's Debian packages into WORK-DIR with
# cpack, then checks with dpkg-deb what each package holds and what it declares. Nothing is installed.
# Writes only under WORK-DIR.
set -euo pipefail
cpack=$1 build=$2 work=$3

rm -rf "$work"
mkdir -p "$work"
"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1 \
    || { cat "$work/cpack.log"; exit 1; }
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
arch=$(dpkg --print-architecture)
failed=0
fail() { echo "FAIL $*"; failed=1; }

# check PACKAGE FIELD|CONTENT PATTERN...: a control field, or the listing of the files, must match
# (or, with a leading '!', must not match) each extended regular expression.
check() {
    local package=$1 what=$2 deb=$work/${1}_${version}_${arch}.deb text pattern
    shift 2
    [ -f "$deb" ] || { fail "$package: no $deb"; return; }
    if [ "$what" = content ]; then
        text=$(dpkg-deb -c "$deb" | awk '{ $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }')
    else
        text=$(dpkg-deb -f "$deb" "$what")
    fi
    for pattern in "$@"; do
        if [ "${pattern#!}" != "$pattern" ]; then
            ! grep -Eq -- "${pattern#!}" <<<"$text" || fail "$package $what has '${pattern#!}': $text"
        else
            grep -Eq -- "$pattern" <<<"$text" || fail "$package $what lacks '$pattern': $text"
        fi
    done
}

check libqvagent1 Package '^libqvagent1$'
check libqvagent1 Section '^libs$'
check libqvagent1 Depends 'libc6' '!libqvagent'
check libqvagent1 content '^\./usr/lib/libqvagent\.so\.1\.0\.0$' '^\./usr/lib/libqvagent\.so\.1 -> libqvagent\.so\.1\.0\.0$' \
    '^\./usr/lib/libqvplatform\.so\.1' '!/include/' '!/bin/' '!libqvagent\.a' '!^\./usr/lib/lib[a-z]+\.so ->'

check libqvagent-dev Package '^libqvagent-dev$'
check libqvagent-dev Depends "libqvagent1 \\(= $version\\)"
check libqvagent-dev content '^\./usr/include/qvagent/qvagent\.h$' '^\./usr/include/qvagent/qv_agent_wire\.h$' \
    '^\./usr/include/qvplatform/' '^\./usr/lib/libqvagent\.a$' '^\./usr/lib/libqvagent\.so -> libqvagent\.so\.1$' \
    '^\./usr/lib/pkgconfig/qvagent\.pc$' '^\./usr/lib/cmake/qvagent/qvagentConfig\.cmake$' \
    '^\./usr/lib/cmake/qvagent/qvagentTargets\.cmake$' '!^\./usr/lib/[^ ]+\.so\.1(\.0\.0)?( |$)' '!/bin/'

check qvagent-tools Package '^qvagent-tools$'
check qvagent-tools Depends 'libc6' 'libstdc\+\+6' '!libqvagent'
check qvagent-tools Suggests 'tshark'
check qvagent-tools content '^\./usr/bin/qvcollector$' '^\./usr/bin/qvdump$' '^\./usr/share/qvagent/qvagent\.lua$' \
    '!/lib/' '!/include/'

[ "$failed" = 0 ] && echo "deb_check: libqvagent1, libqvagent-dev and qvagent-tools $version hold what they should"
exit "$failed"
