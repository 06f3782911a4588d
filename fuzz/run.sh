#!/usr/bin/env bash
# Builds the fuzz targets with clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer into their own build tree and runs each for a set time.
#
#     fuzz/run.sh [BUILD_DIR [SECONDS [TARGET...]]]      (make fuzz runs it)
#
# Defaults: build-fuzz, FUZZ_SECONDS or 180 seconds per target, every target.  FUZZ_JOBS
# (default 1) targets run at once.  Each target works on a copy of its seed corpus in
# BUILD_DIR/corpus/<target>, so that what it learns is kept from run to run but never
# written into the tree.  A crash, hang, leak or out-of-bounds access leaves the input
# in BUILD_DIR/findings/<target>/ and makes the run fail; once fixed, copy that input
# to fuzz/regress/<target>/, where the regression test of `make test` replays it.
set -uo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-build-fuzz}"
seconds="${2:-${FUZZ_SECONDS:-180}}"
shift $(( $# > 2 ? 2 : $# ))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(isam config parm cfentry vallist profile load import salvage write)
jobs="${FUZZ_JOBS:-1}"

command -v clang++ >/dev/null || { echo "fuzz: clang++ is needed (Debian: clang, libclang-rt-dev)" >&2; exit 1; }
mkdir -p "$build"
build="$(cd "$build" && pwd)"

cmake -S "$src" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKISAM_SANITIZE=ON -DKISAM_FUZZ=ON -DKISAM_TESTS=OFF >"$build/cmake.log" 2>&1 \
    || { cat "$build/cmake.log" >&2; exit 1; }
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}" >"$build/build.log" 2>&1 \
    || { tail -40 "$build/build.log" >&2; exit 1; }

# Largest input per target: ISAM images and dumps of a few dozen pages; text files of a
# few pages.
declare -A max_len=([isam]=65536 [write]=65536 [salvage]=65536 [load]=65536 [import]=65536 [config]=512)
# Private temporary files of the harnesses; a killed run may leave its sandbox here.
# In memory where the machine has it: the text targets write their input to a file on
# every run, and a disk's metadata writes would leave the fuzzer waiting.
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    export TMPDIR="$(mktemp -d /dev/shm/kisam-fuzz.XXXXXX)"
else
    export TMPDIR="$build/tmp"
    rm -rf "$TMPDIR"
    mkdir -p "$TMPDIR"
fi
# A harness that aborted (a finding) left its sandbox, and the shared segment keyed on the
# sandbox's lock file (ftok: project 1, the device's low byte, the inode's low 16 bits):
# remove that segment when nobody is attached to it, then the sandboxes.
remove_segments() {
    local lk dev ino key
    for lk in "$TMPDIR"/kisam-fuzz-*/kisamconfig.lk; do
        [ -e "$lk" ] || continue
        read -r dev ino < <(stat -c '%d %i' "$lk")
        key=$(printf '0x%08x' $(( (1 << 24) | ((dev & 0xff) << 16) | (ino & 0xffff) )))
        ipcs -m | awk -v k="$key" '$1 == k && $6 == 0 { print $2 }' | xargs -r -n1 ipcrm -m
    done
}
trap 'remove_segments; rm -rf "$TMPDIR"' EXIT
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:allocator_may_return_null=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

run_one() {
    local t=$1
    local corpus="$build/corpus/$t" found="$build/findings/$t" log="$build/logs/$t.log"
    mkdir -p "$corpus" "$found" "$build/logs"
    cp -n "$src/fuzz/corpus/$t/"* "$corpus/" 2>/dev/null
    local TIMEFORMAT='%U %S'
    { time "$build/fuzz/fuzz_$t" "$corpus" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -max_len="${max_len[$t]:-8192}" -print_final_stats=1 -artifact_prefix="$found/" >"$log" 2>&1 ; } \
        2>"$build/logs/$t.cpu"
    local rc=$?
    local execs cov ft cpu
    cpu=$(awk '{ printf "%.1f", ($1 + $2) / 60 }' "$build/logs/$t.cpu")
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
    ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
    if [ $rc -eq 0 ] && [ -z "$(ls -A "$found")" ]; then
        printf 'fuzz %-8s ok  %10s runs  cov %5s  ft %6s  corpus %5s  (%ss, %s CPU-min)\n' "$t" "${execs:-?}" \
            "${cov:-?}" "${ft:-?}" "$(ls "$corpus" | wc -l)" "$seconds" "$cpu"
    else
        printf 'fuzz %-8s FINDING (exit %d): %s; log %s\n' "$t" "$rc" "$(ls "$found" | head -3 | tr '\n' ' ')" "$log"
        grep -m3 -E 'ERROR|runtime error|finding|SUMMARY' "$log" | sed 's/^/    /'
        return 1
    fi
}

status=0
running=0
for t in "${targets[@]}"; do
    if [ ! -x "$build/fuzz/fuzz_$t" ]; then echo "fuzz: no target $t" >&2; status=1; continue; fi
    run_one "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then wait -n || status=1; running=$((running - 1)); fi
done
while [ "$running" -gt 0 ]; do wait -n || status=1; running=$((running - 1)); done
exit $status
