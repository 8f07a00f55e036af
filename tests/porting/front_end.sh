#!/bin/sh
# front_end.sh SOURCE BUILD CTL DAEMON COMPILER CMAKE-ARGUMENTS...: install the library, build a front
# end with it, once with pkg-config and once with CMake, and have both ask a daemon.
source=$1
build=$2
ctl=$3
program=$4
compiler=$5
shift 5
set -eu
. "$source/tests/porting/checks.sh"
code=$source/tests/porting/front_end

# asks PROGRAM: it binds the default policy, and tells what is bound.
asks() {
    bound=$("$1" 2>"$work/log") || fail "$1 does not run"
    [ "$bound" = default ] || fail "$1 says $bound"
    "$ctl" unbind
}

DESTDIR=$work/tree cmake --install "$build" --prefix /usr/local --component client >"$work/log" 2>&1 ||
    fail "does not install"
! grep -rIlF -e "$source" -e "$build" -e "$work" "$work/tree" >"$work/log" || fail "names where it was built"
start_daemon "$program" "$ctl"

PKG_CONFIG_PATH=$(dirname "$(find "$work/tree" -name cpudefend.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046  # words are wanted
"$compiler" -std=c++20 -Wall -Wextra -Werror "$code/main.cpp" -o "$work/front_end" \
    $(pkg-config --cflags --libs cpudefend) >"$work/log" 2>&1 || fail "does not build with pkg-config"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir cpudefend)
export LD_LIBRARY_PATH
asks "$work/front_end"

unset LD_LIBRARY_PATH
cmake -S "$code" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/tree/usr/local" "$@" >"$work/log" 2>&1 ||
    fail "does not configure"
cmake --build "$work/build" >"$work/log" 2>&1 || fail "does not build with CMake"
asks "$work/build/front_end"
