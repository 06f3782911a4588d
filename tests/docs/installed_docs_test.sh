#!/bin/sh
# The documentation as a new user meets it, against an installed copy:
#  - every exported name has a section-3 page or link under share/man (man -w finds it);
#  - the README's first program, with the README's own commands before it, builds with
#    pkg-config and runs; without a configuration it names the file it looked for;
#  - the complete example of kisam(3), taken from the installed page as man renders it,
#    builds, runs and prints what the page says it prints.
#   installed_docs_test.sh BUILD_DIR SOURCE_DIR
set -eu
build=$1
src=$2
work=$(mktemp -d /tmp/kisam-docs-XXXXXX)
cleanup() {
    # Each program detaches, which removes the segment; remove it in any case by its key.
    for lk in "$work"/home/kisamconfig.lk "$work"/kisamconfig.lk; do
        [ -f "$lk" ] || continue
        set -- $(stat -c '%d %i' "$lk")
        ipcrm -M $(( (1 << 24) | (($1 & 255) << 16) | ($2 & 65535) )) 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "installed_docs_test: $*" >&2; exit 1; }
for t in cc pkg-config man python3; do
    command -v "$t" >/dev/null 2>&1 || { echo "installed_docs_test: $t not found; skipped"; exit 77; }
done

prefix="$work/prefix"
HOME="$work/home"; HOME_Q9="$work/q9"; PROFILEQ9ENV="$work/home/.Q9.profile"
export HOME HOME_Q9 PROFILEQ9ENV
mkdir -p "$HOME" "$HOME_Q9"
unset KISCONFIG || true
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libkisam.so | head -n 1)")
PKG_CONFIG_PATH="$libdir/pkgconfig"; LD_LIBRARY_PATH="$libdir"; PATH="$prefix/bin:$PATH"
MANWIDTH=200; LC_ALL=C.UTF-8
export PKG_CONFIG_PATH LD_LIBRARY_PATH PATH MANWIDTH LC_ALL

# ---- every exported name finds its page
sed -e 's#/\*.*\*/##g' "$src/src/kisam.map" |
    awk '/global:/ { g = 1; sub(/.*global:/, "") } /local:/ { g = 0 } g' |
    tr ';{} \t' '\n\n\n\n\n' | grep -v '^$' >"$work/names"
missing=""
while read -r name; do
    man -M "$prefix/share/man" -w 3 "$name" >/dev/null 2>&1 || missing="$missing $name"
done <"$work/names"
[ -z "$missing" ] || fail "no installed page for:$missing"
echo "installed_docs_test: $(wc -l <"$work/names") names have an installed page"

# ---- the README's first program, after the README's own commands
readme="$src/README.md"
sed -n '/^## Using it/,/^## /p' "$readme" >"$work/using"
sed -n '/^```c$/,/^```$/p' "$work/using" | sed '1d;$d' >"$work/readme.c"
sed -n '1,/^```c$/p' "$work/using" | grep '^    ' | sed 's/^    //' >"$work/readme.sh"
[ -s "$work/readme.c" ] && [ -s "$work/readme.sh" ] || fail "README: no program or no commands under 'Using it'"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror -o "$work/readme" "$work/readme.c" $(pkg-config --cflags --libs kisam) \
    || fail "the README's program does not build"
(cd "$work" && { cat readme.sh; echo ./readme; } | sh) || fail "the README's program fails"
out=$(cd "$work" && KISCONFIG="$work/nowhere/kisamconfig" ./readme 2>&1) && fail "the README's program runs without a configuration"
echo "$out" | grep -q "configuration tried: $work/nowhere/kisamconfig" \
    || fail "without a configuration the README's program does not name the file: $out"

# ---- a private prefix, as the README's Installation section says: without a word to
# the loader the program does not start; with the README's -Wl,-rpath it does.
grep -q -- '-Wl,-rpath,' "$readme" && grep -q 'LD_LIBRARY_PATH' "$readme" \
    || fail "README: no word on LD_LIBRARY_PATH and -Wl,-rpath for a private prefix"
if ! /sbin/ldconfig -p 2>/dev/null | grep -q 'libkisam\.so\.1 '; then
    out=$(cd "$work" && env -u LD_LIBRARY_PATH ./readme 2>&1) && fail "the program starts without LD_LIBRARY_PATH or an rpath"
    echo "$out" | grep -q "libkisam.so.1: cannot open shared object file" \
        || fail "a program without LD_LIBRARY_PATH fails otherwise than the README says: $out"
fi
# shellcheck disable=SC2046
cc -std=c11 -o "$work/readme_rpath" "$work/readme.c" $(pkg-config --cflags --libs kisam) -Wl,-rpath,"$libdir" \
    || fail "the README's program does not build with an rpath"
(cd "$work" && env -u LD_LIBRARY_PATH KISCONFIG="$work/home/kisamconfig" ./readme_rpath) \
    || fail "the README's program linked with -Wl,-rpath does not run without LD_LIBRARY_PATH"

# ---- the complete example of kisam(3), as the installed page shows it
man -M "$prefix/share/man" 3 kisam >"$work/kisam.txt" 2>"$work/man.err" || fail "man kisam fails"
[ ! -s "$work/man.err" ] || fail "man kisam: $(cat "$work/man.err")"
sed -n '/^EXAMPLE/,/^SEE ALSO/p' "$work/kisam.txt" >"$work/example.txt"
sed -n '/^       \/\*/,/^       Its output:/p' "$work/example.txt" | sed '$d' | sed 's/^       //' >"$work/customers.c"
sed -n '/^       Its output:/,$p' "$work/example.txt" | sed '1d;$d' | sed -n 's/^       \(..*\)/\1/p' >"$work/expected"
[ -s "$work/customers.c" ] && [ -s "$work/expected" ] || fail "kisam(3): no example or no output found"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror -o "$work/customers" "$work/customers.c" $(pkg-config --cflags --libs kisam) \
    || fail "the example of kisam(3) does not build"
kisam config init "$work/kisamconfig" >/dev/null || fail "kisam config init"
(cd "$work" && KISCONFIG="$work/kisamconfig" ./customers) >"$work/got" || fail "the example of kisam(3) fails"
diff "$work/expected" "$work/got" || fail "the example of kisam(3) prints something else than its page says"
out=$(cd "$work" && KISCONFIG="$work/none" ./customers 2>&1) && fail "the example runs without a configuration"
echo "$out" | grep -q "configuration file tried: $work/none" || fail "the example does not name the file tried: $out"
echo "installed_docs_test: ok"
