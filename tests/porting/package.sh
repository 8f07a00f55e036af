#!/bin/sh
# package.sh SOURCE BUILD CTL CMAKE-ARGUMENTS...: install what a daemon of one's own is built with, move
# it away from there, build such a daemon with it, run it, and ask it.
source=$1
build=$2
ctl=$3
shift 3
set -eu
. "$source/tests/porting/checks.sh"

cmake --install "$build" --prefix "$work/first" --component development >"$work/log" 2>&1 ||
    fail "does not install"
mv "$work/first" "$work/tree"
! grep -rIlF -e "$source" -e "$build" -e "$work" "$work/tree" >"$work/log" || fail "names where it was built"

cp -r "$source/tests/porting/package" "$source/platform/example" "$work"
cmake -S "$work/package" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/tree" \
    -DLAYER="$work/example" "$@" >"$work/log" 2>&1 || fail "does not configure"
cmake --build "$work/build" >"$work/log" 2>&1 || fail "does not build"

start_daemon "$work/build/small_daemon" "$ctl"
says "the example layer serves"
if "$ctl" bind default >"$work/log" 2>&1; then
    fail "a binding is not refused"
fi
says "couldn't add a CAR entry: the example layer has no hardware: No such device"
