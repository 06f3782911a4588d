#!/bin/sh
# The kisam tool names the configuration file when start-up fails because of it.
#   tool_config_test.sh KISAM_TOOL
set -u
tool=$1
dir=$(mktemp -d /tmp/kisam-toolcfg-XXXXXX) || exit 1
trap 'rm -rf "$dir"' EXIT
HOME=$dir; HOME_Q9=$dir; PROFILEQ9ENV=$dir/.Q9.profile
export HOME HOME_Q9 PROFILEQ9ENV
unset KISCONFIG || true
: >"$dir/empty"
"$tool" --config "$dir/empty" get "$dir/f.isam" x >"$dir/out" 2>&1
rc=$?
cat "$dir/out"
[ $rc -eq 1 ] || { echo "exit status $rc, not 1"; exit 1; }
grep -q "ISE_INITERR.*is_init - 2" "$dir/out" || { echo "no ISE_INITERR report"; exit 1; }
grep -q "the configuration file $dir/empty is empty" "$dir/out" || { echo "the file is not named"; exit 1; }
echo "tool_config_test: ok"
