#!/usr/bin/env bash
# install_check.sh CMAKE CC BUILD-DIR LIBDIR CONSUMER-DIR WORK-DIR: installs the build into a scratch
# prefix under WORK-DIR, moves the installed tree elsewhere (the package must not depend on where it
# was installed), then builds the consumer there twice, through pkg-config and through
# find_package(qvagent), and runs both; each must load the agent from the moved tree.
# Writes only under WORK-DIR.
set -euo pipefail
cmake=$1 cc=$2 build=$3 libdir=$4 consumer=$5 work=$6

rm -rf "$work"
mkdir -p "$work"
"$cmake" --install "$build" --prefix "$work/installed" >"$work/install.log"
mv "$work/installed" "$work/moved"
prefix=$work/moved

# run_consumer NAME PROGRAM: runs it and checks that libqvagent came from the moved tree.
run_consumer() {
    local loaded
    loaded=$(ldd "$2" | awk '$1 ~ /^libqvagent\.so/ {print $3}')
    case "$loaded" in
        "$prefix"/*) ;;
        *) echo "$1: libqvagent resolves to '${loaded:-nothing}', not under $prefix"; return 1 ;;
    esac
    "$2" || { echo "$1: the consumer failed"; return 1; }
    echo "$1: built, linked $loaded and ran"
}

# Through pkg-config, from the installed .pc file alone; the library path is the user's to give.
export PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH=
flags=$(pkg-config --cflags --libs qvagent)
"$cc" -std=c11 -Wall -Wextra -Werror "$consumer/consumer.c" $flags -o "$work/pkg_config_consumer"
LD_LIBRARY_PATH=$prefix/$libdir run_consumer pkg-config "$work/pkg_config_consumer"

# Through find_package(qvagent); the imported targets give the program a run path into the prefix.
"$cmake" -S "$consumer" -B "$work/cmake_consumer" -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/cmake_consumer.log" 2>&1 || { cat "$work/cmake_consumer.log"; exit 1; }
"$cmake" --build "$work/cmake_consumer" >>"$work/cmake_consumer.log" 2>&1 || { cat "$work/cmake_consumer.log"; exit 1; }
run_consumer find_package "$work/cmake_consumer/consumer"
