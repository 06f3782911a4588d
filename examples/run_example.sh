#!/bin/sh
# Runs an example program in a private installation: its own directory, configuration
# file (written by MKCONFIG) and lock file, HOME, HOME_Q9 and PROFILEQ9ENV pointing
# there, and the shared segment of that installation removed afterwards whatever the
# program did.
#   run_example.sh MKCONFIG PROGRAM ARG...
set -u
mkconfig=$1
prog=$2
shift 2
dir=$(mktemp -d /tmp/kisam-example-XXXXXX) || exit 1
mkdir -p "$dir/home" "$dir/q9"
# The installation's configuration and lock file, written by the mkconfig example
# (kisam_config_write): 16 files, 64 buffers, 16 processes.
"$mkconfig" "$dir/kisamconfig" || { rm -rf "$dir"; exit 1; }
HOME=$dir/home
HOME_Q9=$dir/q9
PROFILEQ9ENV=$dir/home/.Q9.profile
KISCONFIG=$dir/kisamconfig
# EXAMPLE_NO_CONFIG=1: the program runs as on a machine without a configuration.
[ "${EXAMPLE_NO_CONFIG:-}" = 1 ] && KISCONFIG=$dir/no-such-dir/kisamconfig
export HOME HOME_Q9 PROFILEQ9ENV KISCONFIG
(cd "$dir" && "$prog" "$@")
rc=$?
# The segment's key is ftok(lock file, 1): project id, low byte of the device, low 16
# bits of the inode.
set -- $(stat -c '%d %i' "$dir/kisamconfig.lk")
key=$(( (1 << 24) | (($1 & 255) << 16) | ($2 & 65535) ))
ipcrm -M "$key" 2>/dev/null
rm -rf "$dir"
exit $rc
