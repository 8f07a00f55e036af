#!/bin/sh
# own_layer.sh SOURCE CTL CMAKE-ARGUMENTS...: build the daemon with a copy of the example layer that
# lies outside of the tree, run it, and ask it. The copy has one function more, which may be left
# out, in a file of its own: it must be the one that serves.
source=$1
ctl=$2
shift 2
set -eu
. "$source/tests/porting/checks.sh"

cp -r "$source/platform/example" "$work/layer"
cat >"$work/layer/start.c" <<'END'
#include "zynhwal.h"

int32_t zynPlatformStart(void)
{
    NM_DEBUG_OUTPUT("the copy starts\n");
    return 0;
}
END
sed -i 's/entries\.c/& start.c/' "$work/layer/CMakeLists.txt"

configure() {
    cmake -S "$source" -B "$work/build" -DCPUDEFEND_FRONTENDS=OFF "$@" >"$work/log" 2>&1
}

configure -DCPUDEFEND_PLATFORM_DIR="$work/layer" "$@" || fail "does not configure"
cmake --build "$work/build" --target cpuDefend >"$work/log" 2>&1 || fail "does not build"

start_daemon "$work/build/bin/cpuDefend" "$ctl"
says "the example layer serves"
says "the copy starts"
if "$ctl" bind default >"$work/log" 2>&1; then
    fail "a binding is not refused"
fi
grep -q "code 19 " "$work/log" || fail "a refused binding does not say why"
says "couldn't add a CAR entry: the example layer has no hardware: No such device"
"$ctl" policy list >"$work/log" 2>&1 || fail "does not answer once it has refused"

# What can't be is said when it is configured.
mkdir "$work/nothing"
touch "$work/nothing/CMakeLists.txt"
! configure -DCPUDEFEND_PLATFORM_DIR="$work/nothing" || fail "takes a folder without a layer"
grep -q "nothing/CMakeLists.txt defines no library zynplatform" "$work/log" || fail "does not say why"
! configure -DCPUDEFEND_PLATFORM_DIR="$work/layer" -DCPUDEFEND_TESTS=ON || fail "takes tests as well"
grep -q "for the layers of this tree" "$work/log" || fail "does not say why"
