#!/bin/sh
# Runs an example program in a private installation: its own directory, configuration
# file and lock file, HOME, HOME_Q9 and PROFILEQ9ENV pointing there, and the shared
# segment of that installation removed afterwards whatever the program did.
set -u
prog=$1
shift
dir=$(mktemp -d /tmp/kisam-example-XXXXXX) || exit 1
mkdir -p "$dir/home" "$dir/q9"
# Configuration record (52 bytes, little-endian): maxopen 16, maxbuf 64, maxusers 16,
# maxnkeys 25, avgalts 2, alenlock 16, anumlock 16, locksig 0, maxfbuf 64, the rest 0.
printf '\020\000\100\000\020\000\031\000\002\000\020\000\020\000\000\000\100\000\000\000' \
    > "$dir/kisamconfig"
head -c 32 /dev/zero >> "$dir/kisamconfig"
: > "$dir/kisamconfig.lk"
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
