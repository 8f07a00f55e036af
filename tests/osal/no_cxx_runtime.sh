#!/bin/sh
# no_cxx_runtime.sh READELF LIBRARY: fail when the library refers to the C++ run-time library, which
# shows as an undefined symbol that is mangled or one of its C-named entries.
symbols=$("$1" --symbols --wide "$2" | grep ' UND ') || exit 1
case $symbols in *memmove*) ;; *) echo "no undefined symbols listed"; exit 1 ;; esac
if echo "$symbols" | grep -E ' (_Z|__cxa_|__gxx_)'; then
    exit 1
fi
