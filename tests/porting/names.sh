#!/bin/sh
# names.sh NM LIBRARY LIST: fail when the library defines a global name that is not on the list, or the
# list has one that the library does not define.
set -eu
names=$("$1" --defined-only --extern-only --format=posix "$2" | sed -n 's/^\([^ ]*\) [A-Za-z] .*/\1/p')
allowed=$(grep -Ev '^(#.*)?$' "$3")
wrong=0
# What a sanitizer brings is not the core's.
if echo "$names" | grep -Ev '^__odr_asan' | grep -Evx "$allowed"; then
    echo "$2 defines these names, which others may want"
    wrong=1
fi
for pattern in $allowed; do
    echo "$names" | grep -Eqx "$pattern" || { echo "$2 defines no $pattern"; wrong=1; }
done
exit $wrong
