#!/bin/sh
# console.sh STRIP READELF EXECUTABLE NAME...: fail unless each name is a function that others may
# call in the executable once that is stripped.
strip=$1
readelf=$2
executable=$3
shift 3
stripped=$(mktemp) || exit 1
trap 'rm -f "$stripped"' EXIT
"$strip" -o "$stripped" "$executable" || exit 1
symbols=$("$readelf" --dyn-syms --wide "$stripped") || exit 1
missing=0
for name in "$@"; do
    echo "$symbols" | grep -Eq " FUNC +GLOBAL +DEFAULT .*[0-9]+ $name\$" || {
        echo "$executable has no $name"
        missing=1
    }
done
[ $# -gt 0 ] && exit $missing
