#!/bin/sh
# check.sh RECORDED_RUN: fail unless equal seeds give equal records, other seeds give others, and
# each kind of thing that can happen is in a record of twenty thousand steps.
dir=$(mktemp -d) || exit 1
trap 'rm -rf "$dir"' EXIT
"$@" 1 20000 >"$dir/a" && "$@" 1 20000 >"$dir/again" && "$@" 2 20000 >"$dir/b" || exit 1
cmp "$dir/a" "$dir/again" || exit 1
cmp -s "$dir/a" "$dir/b" && echo "seeds 1 and 2 have the same record" && exit 1

missing=0
expect() {
    grep -aEq "$1" "$dir/a" || {
        echo "the record has no line like: $1"
        missing=1
    }
}
# Every function code answered with success, a return code that is none, no reply at all.
for code in $(seq 26); do
    expect "^< 000000$(printf %02x "$code") .{17} 00000000 "
done
expect '^< .{26} ffffffff '
expect '^< .{26} 03e80001 '
expect '^< .{26} 041e0005 '
expect '^< nothing'
# Calls with success and failure; removals of what is not there; what is dropped late.
for call in 'slot car add' 'slot car del' 'car add' 'car del' 'acl add' 'acl del' 'sync' 'slot sync'; do
    expect "^\* $call .*-> 0\$"
    expect "^\* $call .*-> 5\$"
done
for call in 'slot car del' 'car del' 'acl del'; do
    expect "^\* $call .*-> 2\$"
done
for line in 'change begin' 'change end -> 0' 'change end -> 28' 'dropped .*-> 0' 'role 53 -> 0' \
    'role 54 -> 0' 'cpu 0 -> 0' 'cpu 1 -> 5' 'count .*-> 0' 'traced ' 'packet ' 'listing' \
    'policy sync' 'rule sync' 'car sync' 'platform '; do
    expect "^\* $line"
done
for message in RTM_NEWLINK RTM_DELLINK 'unknown rtm type' 'come to arp' 'over the srcTrace' \
    'line # in func|in line #' 'is not protected'; do
    expect "^! .*$message"
done
for printed in 'policy is change!' '^policyName=' '^ifUnit=' '^sysId='; do
    expect "$printed"
done
exit $missing
