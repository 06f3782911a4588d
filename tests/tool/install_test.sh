#!/bin/sh
# The installed copy as a user meets it: a built tree installed into a temporary prefix,
#  - the files a consumer needs are there (SONAME link, headers, pkg-config and CMake
#    files, manual pages, bash completion), and the installed tool runs;
#  - a small C program builds and runs with pkg-config and with find_package, and so
#    does examples/basic.c;
#  - every exported name has a section-3 page or link (man -w finds it);
#  - the README's first program, after the README's own commands, builds and runs, and
#    without a configuration names the file it looked for; in a private prefix it needs
#    LD_LIBRARY_PATH or the README's -Wl,-rpath;
#  - the complete example of kisam(3), taken from the installed page as man renders it,
#    builds, runs and prints what the page says it prints.
#   install_test.sh BUILD_DIR SOURCE_DIR
# shellcheck disable=SC2086 # $pc: the compiler flags pkg-config gives, one a word
set -eu
build=$1
src=$2
consumer="$src/tests/tool/consumer"
work=$(mktemp -d /tmp/kisam-install-XXXXXX)
cfg="$work/kisamconfig"
cleanup() {
    # Each program detaches, which removes the segment; remove it in any case by its key.
    for lk in "$work/home/kisamconfig.lk" "$cfg.lk"; do
        [ -f "$lk" ] || continue
        set -- $(stat -c '%d %i' "$lk")
        ipcrm -M $(( (1 << 24) | (($1 & 255) << 16) | ($2 & 65535) )) 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install_test: $*" >&2; exit 1; }
# Without the tools a consumer uses, there is nothing to show (CTest: skipped).
for t in cc pkg-config readelf man; do
    command -v "$t" >/dev/null 2>&1 || { echo "install_test: $t not found; skipped"; exit 77; }
done

prefix="$work/prefix"
HOME="$work/home"; HOME_Q9="$work/q9"; PROFILEQ9ENV="$work/home/.Q9.profile"
export HOME HOME_Q9 PROFILEQ9ENV
mkdir -p "$HOME" "$HOME_Q9"
unset KISCONFIG || true
cmake --install "$build" --prefix "$prefix" >/dev/null

# ---- what is installed
libdir=""
for d in lib lib64 lib/x86_64-linux-gnu; do
    [ -e "$prefix/$d/libkisam.so" ] && libdir="$prefix/$d"
done
[ -n "$libdir" ] || fail "libkisam.so not installed"
[ -L "$libdir/libkisam.so" ] || fail "libkisam.so is not a link"
[ -L "$libdir/libkisam.so.1" ] || fail "libkisam.so.1 (the SONAME link) is missing"
readelf -d "$libdir/libkisam.so.1" | grep -q 'SONAME.*libkisam.so.1' || fail "wrong SONAME"
for f in include/kisam/kisam.h include/kisam/isamdb.h include/kisam/ztsupport.h share/man/man1/kisam.1 \
         "${libdir#"$prefix"/}/pkgconfig/kisam.pc" "${libdir#"$prefix"/}/cmake/kisam/kisamConfig.cmake" \
         "${libdir#"$prefix"/}/cmake/kisam/kisamConfigVersion.cmake"; do
    [ -f "$prefix/$f" ] || fail "$f not installed"
done
comp="$prefix/share/bash-completion/completions/kisam"
[ -f "$comp" ] || fail "bash completion not installed"
if command -v bash >/dev/null 2>&1; then
    words=$(bash -c '. "$1"; COMP_WORDS=(kisam sc); COMP_CWORD=1; _kisam; echo "${COMPREPLY[*]}"' _ "$comp")
    [ "$words" = scan ] || fail "bash completion of 'kisam sc' gives '$words'"
fi
# The installed tool finds its library without help.
"$prefix/bin/kisam" --version | grep -q '^kisam [0-9]' || fail "installed kisam does not run"
"$prefix/bin/kisam" config init "$cfg" --buffers 16 --files 8 --users 8 >/dev/null || fail "config init"

# ---- a consumer built with pkg-config, the shipped example, a consumer built with find_package
PKG_CONFIG_PATH="$libdir/pkgconfig"; MANWIDTH=200; LC_ALL=C.UTF-8
export PKG_CONFIG_PATH MANWIDTH LC_ALL
[ "$(pkg-config --modversion kisam)" != "" ] || fail "pkg-config does not know kisam"
pc=$(pkg-config --cflags --libs kisam)
cc -std=c11 -Wall -Werror -o "$work/consumer-pc" "$consumer/consumer.c" $pc || fail "cannot build with pkg-config"
KISCONFIG="$cfg" LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" "$work/pc.isam" | grep -q 'consumer ok' \
    || fail "pkg-config build does not run"
cc -std=c11 -Wall -Werror -o "$work/basic-pc" "$src/examples/basic.c" $pc || fail "cannot build examples/basic.c with pkg-config"
(cd "$work" && KISCONFIG="$cfg" LD_LIBRARY_PATH="$libdir" "$work/basic-pc") >/dev/null || fail "examples/basic.c does not run"
cmake -S "$consumer" -B "$work/cbuild" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null || fail "find_package(kisam) fails"
cmake --build "$work/cbuild" >/dev/null || fail "cannot build with find_package"
KISCONFIG="$cfg" "$work/cbuild/consumer" "$work/cm.isam" | grep -q 'consumer ok' || fail "find_package build does not run"
KISCONFIG="$cfg" "$prefix/bin/kisam" check "$work/cm.isam" >/dev/null || fail "check of the consumer's file"

# ---- every exported name finds its page
sed -e 's#/\*.*\*/##g' "$src/src/kisam.map" |
    awk '/global:/ { g = 1; sub(/.*global:/, "") } /local:/ { g = 0 } g' |
    tr ';{} \t' '\n\n\n\n\n' | grep -v '^$' >"$work/names"
missing=""
while read -r name; do
    man -M "$prefix/share/man" -w 3 "$name" >/dev/null 2>&1 || missing="$missing $name"
done <"$work/names"
[ -z "$missing" ] || fail "no installed page for:$missing"

# ---- the README's first program, after the README's own commands
LD_LIBRARY_PATH="$libdir"; PATH="$prefix/bin:$PATH"
export LD_LIBRARY_PATH PATH
readme="$src/README.md"
sed -n '/^## Using it/,/^## /p' "$readme" >"$work/using"
sed -n '/^```c$/,/^```$/p' "$work/using" | sed '1d;$d' >"$work/readme.c"
sed -n '1,/^```c$/p' "$work/using" | grep '^    ' | sed 's/^    //' >"$work/readme.sh"
[ -s "$work/readme.c" ] && [ -s "$work/readme.sh" ] || fail "README: no program or no commands under 'Using it'"
cc -std=c11 -Wall -Wextra -Werror -o "$work/readme" "$work/readme.c" $pc || fail "the README's program does not build"
(cd "$work" && { cat readme.sh; echo ./readme; } | sh) || fail "the README's program fails"
out=$(cd "$work" && KISCONFIG="$work/nowhere/kisamconfig" ./readme 2>&1) && fail "the README's program runs without a configuration"
echo "$out" | grep -q "configuration tried: $work/nowhere/kisamconfig" \
    || fail "without a configuration the README's program does not name the file: $out"
# A private prefix, as the README's Installation section says: without a word to the
# loader the program does not start; with the README's -Wl,-rpath it does.
grep -q -- '-Wl,-rpath,' "$readme" && grep -q 'LD_LIBRARY_PATH' "$readme" \
    || fail "README: no word on LD_LIBRARY_PATH and -Wl,-rpath for a private prefix"
if ! /sbin/ldconfig -p 2>/dev/null | grep -q 'libkisam\.so\.1 '; then
    out=$(cd "$work" && env -u LD_LIBRARY_PATH ./readme 2>&1) && fail "the program starts without LD_LIBRARY_PATH or an rpath"
    echo "$out" | grep -q "libkisam.so.1: cannot open shared object file" \
        || fail "a program without LD_LIBRARY_PATH fails otherwise than the README says: $out"
fi
cc -std=c11 -o "$work/readme_rpath" "$work/readme.c" $pc -Wl,-rpath,"$libdir" || fail "the README's program does not build with an rpath"
(cd "$work" && env -u LD_LIBRARY_PATH KISCONFIG="$work/home/kisamconfig" ./readme_rpath) \
    || fail "the README's program linked with -Wl,-rpath does not run without LD_LIBRARY_PATH"

# ---- the complete example of kisam(3), as the installed page shows it
man -M "$prefix/share/man" 3 kisam >"$work/kisam.txt" 2>"$work/man.err" || fail "man kisam fails"
[ ! -s "$work/man.err" ] || fail "man kisam: $(cat "$work/man.err")"
sed -n '/^EXAMPLE/,/^SEE ALSO/p' "$work/kisam.txt" >"$work/example.txt"
sed -n '/^       \/\*/,/^       Its output:/p' "$work/example.txt" | sed '$d' | sed 's/^       //' >"$work/customers.c"
sed -n '/^       Its output:/,$p' "$work/example.txt" | sed '1d;$d' | sed -n 's/^       \(..*\)/\1/p' >"$work/expected"
[ -s "$work/customers.c" ] && [ -s "$work/expected" ] || fail "kisam(3): no example or no output found"
cc -std=c11 -Wall -Wextra -Werror -o "$work/customers" "$work/customers.c" $pc || fail "the example of kisam(3) does not build"
(cd "$work" && KISCONFIG="$cfg" ./customers) >"$work/got" || fail "the example of kisam(3) fails"
diff "$work/expected" "$work/got" || fail "the example of kisam(3) prints something else than its page says"
out=$(cd "$work" && KISCONFIG="$work/none" ./customers 2>&1) && fail "the example runs without a configuration"
echo "$out" | grep -q "configuration file tried: $work/none" || fail "the example does not name the file tried: $out"
echo "install_test: ok ($(wc -l <"$work/names") names have an installed page)"
