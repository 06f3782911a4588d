#!/bin/sh
# The library depends on the C library only (its C++ runtime is linked in) and carries
# the SONAME programs record.
# usage: needed_test.sh LIBRARY
lib=$1
dyn=$(readelf -d "$lib") || exit 1
rc=0
soname=$(printf '%s\n' "$dyn" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [ "$soname" != "libkisam.so.1" ]; then echo "SONAME is '$soname', not libkisam.so.1"; rc=1; fi
needed=$(printf '%s\n' "$dyn" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for n in $needed; do
    case $n in
    libc.so.* | libm.so.* | libdl.so.* | libpthread.so.* | librt.so.* | ld-linux*.so.*) ;;
    *) echo "needs $n, which is not part of the C library"; rc=1 ;;
    esac
done
[ $rc -eq 0 ] && echo "NEEDED:" $needed
exit $rc
