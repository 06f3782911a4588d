#!/bin/sh
# A short tour of libkisam through the kisam tool, in a temporary directory.
#   tools/demo.sh BUILD_DIR
# Nothing outside the temporary directory is touched: HOME, HOME_Q9 and PROFILEQ9ENV
# point into it, and the shared area is gone when the demo ends.
set -eu

build=${1:-build}
bin="$build/tools/kisam/kisam"
[ -x "$bin" ] || { echo "demo: $bin not found; build first (make)" >&2; exit 1; }
KISAM_BIN=$(cd "$(dirname "$bin")" && pwd)/kisam
kisam() { "$KISAM_BIN" "$@"; }

work=$(mktemp -d "${TMPDIR:-/tmp}/kisam-demo-XXXXXX")
writer=""
cleanup() {
    if [ -n "$writer" ]; then
        exec 3>&- 2>/dev/null || true
        kill "$writer" 2>/dev/null || true
        wait "$writer" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

HOME="$work/home"; HOME_Q9="$work/q9"; PROFILEQ9ENV="$work/home/.Q9.profile"
KISCONFIG="$work/kisamconfig"
export HOME HOME_Q9 PROFILEQ9ENV KISCONFIG
mkdir -p "$HOME" "$HOME_Q9"
cd "$work"

# Headings in bold on a terminal only: a log or a pipe gets plain text.
if [ -t 1 ]; then bold=$(printf '\033[1m'); plain=$(printf '\033[0m'); else bold=""; plain=""; fi
step() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
# Prints a command as one would type it, then runs it.
show() {
    printf '$'
    for a in "$@"; do
        case $a in
            *[!A-Za-z0-9_./=,:-]* | '') printf " '%s'" "$a" ;;
            *) printf ' %s' "$a" ;;
        esac
    done
    printf '\n'
    "$@"
}

step "1. A configuration: 512 shared page buffers, 16 files, 16 processes"
show kisam config init "$KISCONFIG" --buffers 512 --files 16 --users 16
show kisam config show

step "2. A customer file with three keys: id (8 bytes), name (20), city (12)"
show kisam create customers 8,20,12
# Record layout: id, name, city, then free text.

step "3. Loading 100,000 generated customers"
awk 'BEGIN {
    split("London Paris Berlin Madrid Rome Vienna Prague Warsaw Lisbon Dublin Oslo Zurich", city, " ")
    split("Smith Jones Brown Taylor Wilson Evans Thomas Roberts Walker Wright Green Hall", last, " ")
    print "# kisam dump 1"
    print "# keys 8,20,12"
    seed = 12345
    for (i = 1; i <= 100000; i++) {
        seed = (seed * 1103515245 + 12345) % 2147483648
        n = sprintf("%-20s", sprintf("%s %05d", last[seed % 12 + 1], seed % 99991))
        c = sprintf("%-12s", city[int(seed / 7) % 12 + 1])
        r = sprintf("C%07d%s%sbalance=%d since=%d", i, n, c, seed % 100000, 1990 + seed % 35)
        print length(r), r
    }
    print "# end 100000 records"
}' > customers.dump
show kisam load customers customers.dump
show kisam info customers

step "4. Looking records up by each key"
show kisam get customers C0004711
name=$(kisam get customers C0004711 | cut -c9-28 | sed 's/ *$//')
show kisam get customers "$name" --key 1
show kisam scan customers --key 2 --from Lisbon --limit 3

step "5. A range backwards: ids C0050010 down to C0050000"
show kisam scan customers --from C0050010 --to C0050000 --backward

step "6. Updating and deleting a few"
rec=$(kisam get customers C0000042)
show kisam put customers "$(printf '%s' "$rec" | cut -c1-40)balance=0 closed" --update
show kisam get customers C0000042
show kisam del customers C0000043 C0000044 C0000045
show kisam scan customers --from C0000041 --limit 3
show kisam scan customers --count

step "7. Checking the file: every index, the data pages, the free chain"
show kisam check customers

step "8. The shared area while a program works on the file"
mkfifo feed
kisam put customers - < feed &
writer=$!
exec 3> feed
# A few hundred new customers, so that the buffer figures have something to show.
awk 'BEGIN { for (i = 0; i < 300; i++) printf "C02%05d%-20s%-12snew customer\n", i, sprintf("Demo %05d", i), "Lisbon" }' >&3
sleep 1
show kisam stat customers
exec 3>&-
wait "$writer" || true
writer=""
show kisam scan customers --from C0200000 --limit 3

step "Done: the temporary directory is removed, and no shared area is left behind."
