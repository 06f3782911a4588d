#!/bin/sh
# The Debian packages each part of the project needs beyond g++, CMake and GoogleTest,
# checked and, where missing, installed.  The one list: the Makefile and .ci/run both
# call this script.
#
#     tools/deps.sh [--check] GROUP...
#
# Groups: build (the kisam tool), test (the test suite), fuzz (the fuzz targets),
# peers (the comparison benchmark), coverage (the coverage report of `make coverage`).  The library itself needs the C library only.
# As root with apt-get the missing packages are installed; otherwise the script prints
# the one command that installs them and fails.  --check only reports (exit 1: missing).
set -eu

check_only=0
if [ "${1:-}" = "--check" ]; then check_only=1; shift; fi
[ $# -gt 0 ] || set -- build

# Each line: group, package, and the test that says it is there (a file that must exist,
# a command on PATH with "cmd:", a Python module with "py:", a glob with "glob:").
list() {
    cat <<'LIST'
build libcsv-dev /usr/include/csv.h
build pkgconf cmd:pkg-config
test libgtest-dev /usr/include/gtest/gtest.h
test nlohmann-json3-dev /usr/include/nlohmann/json.hpp
test python3 cmd:python3
test python3-pytest py:pytest
test python3-pip py:pip
test man-db cmd:man
fuzz clang cmd:clang++
fuzz libclang-rt-dev glob:/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a
peers libdb5.3-dev /usr/include/db.h
peers liblmdb-dev /usr/include/lmdb.h
peers libsqlite3-dev /usr/include/sqlite3.h
peers gnuplot-nox cmd:gnuplot
peers strace cmd:strace
coverage gcovr cmd:gcovr
LIST
}

# The Python tests run under python3 on PATH when it has pytest, else under the
# system's interpreter, which is the one Debian's python3-pytest serves.
has_py_module() {
    for py in python3 /usr/bin/python3; do
        command -v "$py" >/dev/null 2>&1 || continue
        "$py" -c "import $1" >/dev/null 2>&1 && return 0
    done
    return 1
}

present() {
    case $1 in
        cmd:*) command -v "${1#cmd:}" >/dev/null 2>&1 ;;
        py:*) has_py_module "${1#py:}" ;;
        glob:*) for f in ${1#glob:}; do [ -e "$f" ] && return 0; done; return 1 ;;
        *) [ -e "$1" ] ;;
    esac
}

missing=""
for group in "$@"; do
    case $group in
        build | test | fuzz | peers | coverage) ;;
        *) echo "deps: unknown group '$group' (build, test, fuzz, peers, coverage)" >&2; exit 2 ;;
    esac
    pkgs=$(list | awk -v g="$group" '$1 == g { print $2 " " $3 }')
    while read -r pkg probe; do
        [ -n "$pkg" ] || continue
        present "$probe" && continue
        case " $missing " in *" $pkg "*) ;; *) missing="$missing $pkg" ;; esac
    done <<EOL
$pkgs
EOL
done
missing=${missing# }
[ -n "$missing" ] || exit 0

if [ $check_only -eq 1 ]; then
    echo "deps: missing: $missing"
    exit 1
fi
if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null 2>&1; then
    echo "deps: these Debian packages are needed: $missing" >&2
    echo "deps: install them with:  sudo apt-get install -y $missing" >&2
    exit 1
fi
echo "deps: installing $missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q >/dev/null || apt-get update -q
# shellcheck disable=SC2086
apt-get install -y -q --no-install-recommends $missing
