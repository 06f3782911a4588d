#!/bin/sh
# The library exports exactly the names of the version script: nothing mangled, nothing
# unexpected, nothing missing.
# usage: exports_test.sh LIBRARY VERSION-SCRIPT
lib=$1
map=$2
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT

# Defined dynamic symbols, without version suffixes and without the version node itself.
nm -D --defined-only "$lib" | awk 'NF >= 3 && $2 != "A" { print $3 }' | sed 's/@.*//' |
    sort -u >"$tmp/exported" || exit 1
# Names between "global:" and "local:", comments removed.
sed -e 's#/\*.*\*/##g' "$map" |
    awk '/global:/ { g = 1; sub(/.*global:/, "") } /local:/ || /^}/ { g = 0 } g' |
    tr ';{} \t' '\n\n\n\n\n' | grep -v '^$' | sort -u >"$tmp/mapped" || exit 1

rc=0
if [ ! -s "$tmp/exported" ]; then echo "no exported names found in $lib"; rc=1; fi
if grep '^_Z' "$tmp/exported" >"$tmp/mangled"; then
    echo "mangled C++ names exported:"; cat "$tmp/mangled"; rc=1
fi
comm -23 "$tmp/exported" "$tmp/mapped" >"$tmp/unexpected"
if [ -s "$tmp/unexpected" ]; then
    echo "exported but not in the version script:"; cat "$tmp/unexpected"; rc=1
fi
comm -13 "$tmp/exported" "$tmp/mapped" >"$tmp/missing"
if [ -s "$tmp/missing" ]; then
    echo "in the version script but not exported:"; cat "$tmp/missing"; rc=1
fi
[ $rc -eq 0 ] && echo "$(wc -l <"$tmp/exported") names exported, all of them listed"
exit $rc
