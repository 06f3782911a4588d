#!/bin/sh
# Installs what the peer comparison (peer_bench) and its chart need from Debian's
# packages: Berkeley DB, LMDB and SQLite development files, gnuplot, and strace (which
# counts the system calls per call).  Never needed by
# the build or the tests; run it once, then configure the build again.
set -e
SUDO=
[ "$(id -u)" -eq 0 ] || SUDO=sudo
$SUDO apt-get update -q
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends \
    libdb5.3-dev liblmdb-dev libsqlite3-dev gnuplot-nox strace
