#!/bin/sh
# Installs a built tree into a temporary prefix, then builds and runs a small C program
# against the installed copy twice: once with pkg-config, once with find_package; the
# shipped example examples/basic.c is built with pkg-config and run as well.
#   install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -eu
build=$1
consumer=$2
work=$(mktemp -d /tmp/kisam-install-XXXXXX)
cfg="$work/kisamconfig"
cleanup() {
    # The consumer detaches, which removes the segment; remove it in any case by its key.
    if [ -f "$cfg.lk" ] && command -v ipcrm >/dev/null 2>&1; then
        key=$(python3 -c 'import os,sys; s=os.stat(sys.argv[1]); print(hex(((1 & 0xff) << 24) | ((s.st_dev & 0xff) << 16) | (s.st_ino & 0xffff)))' "$cfg.lk" 2>/dev/null || true)
        [ -n "$key" ] && ipcrm -M "$key" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install_test: $*" >&2; exit 1; }
# Without the tools a consumer uses, there is nothing to show (CTest: skipped).
for t in cc pkg-config readelf; do
    command -v "$t" >/dev/null 2>&1 || { echo "install_test: $t not found; skipped"; exit 77; }
done

prefix="$work/prefix"
HOME="$work/home"; HOME_Q9="$work/q9"; PROFILEQ9ENV="$work/home/.Q9.profile"
export HOME HOME_Q9 PROFILEQ9ENV
mkdir -p "$HOME" "$HOME_Q9"
unset KISCONFIG || true

cmake --install "$build" --prefix "$prefix" >/dev/null

libdir=""
for d in lib lib64 lib/x86_64-linux-gnu; do
    [ -e "$prefix/$d/libkisam.so" ] && libdir="$prefix/$d"
done
[ -n "$libdir" ] || fail "libkisam.so not installed"
[ -L "$libdir/libkisam.so" ] || fail "libkisam.so is not a link"
[ -L "$libdir/libkisam.so.1" ] || fail "libkisam.so.1 (the SONAME link) is missing"
readelf -d "$libdir/libkisam.so.1" | grep -q 'SONAME.*libkisam.so.1' || fail "wrong SONAME"
for h in kisam.h isamdb.h ztsupport.h; do
    [ -f "$prefix/include/kisam/$h" ] || fail "header kisam/$h not installed"
done
[ -f "$libdir/pkgconfig/kisam.pc" ] || fail "kisam.pc not installed"
[ -f "$libdir/cmake/kisam/kisamConfig.cmake" ] || fail "kisamConfig.cmake not installed"
[ -f "$libdir/cmake/kisam/kisamConfigVersion.cmake" ] || fail "kisamConfigVersion.cmake not installed"
[ -f "$prefix/share/man/man1/kisam.1" ] || fail "manual page not installed"
comp="$prefix/share/bash-completion/completions/kisam"
[ -f "$comp" ] || fail "bash completion not installed"
if command -v bash >/dev/null 2>&1; then
    words=$(bash -c '. "$1"; COMP_WORDS=(kisam sc); COMP_CWORD=1; _kisam; echo "${COMPREPLY[*]}"' _ "$comp")
    [ "$words" = scan ] || fail "bash completion of 'kisam sc' gives '$words'"
fi

# The installed tool finds its library without help.
"$prefix/bin/kisam" --version | grep -q '^kisam [0-9]' || fail "installed kisam does not run"
"$prefix/bin/kisam" config init "$cfg" --buffers 16 --files 8 --users 8 >/dev/null || fail "config init"
export KISCONFIG="$cfg"

# pkg-config
PKG_CONFIG_PATH="$libdir/pkgconfig"
export PKG_CONFIG_PATH
[ "$(pkg-config --modversion kisam)" != "" ] || fail "pkg-config does not know kisam"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Werror -o "$work/consumer-pc" "$consumer/consumer.c" $(pkg-config --cflags --libs kisam) \
    || fail "cannot build with pkg-config"
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" "$work/pc.isam" | grep -q 'consumer ok' || fail "pkg-config build does not run"

# The shipped example, built against the installed copy as a user would build it.
example="$consumer/../../../examples/basic.c"
if [ -f "$example" ]; then
    # shellcheck disable=SC2046
    cc -std=c11 -Wall -Werror -o "$work/basic-pc" "$example" $(pkg-config --cflags --libs kisam) \
        || fail "cannot build examples/basic.c with pkg-config"
    (cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/basic-pc") >/dev/null || fail "examples/basic.c does not run"
fi

# find_package
cmake -S "$consumer" -B "$work/cbuild" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null || fail "find_package(kisam) fails"
cmake --build "$work/cbuild" >/dev/null || fail "cannot build with find_package"
"$work/cbuild/consumer" "$work/cm.isam" | grep -q 'consumer ok' || fail "find_package build does not run"

# What the consumers wrote is sound.
"$prefix/bin/kisam" check "$work/cm.isam" >/dev/null || fail "check of the consumer's file"
echo "install_test: ok"
