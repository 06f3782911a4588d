#!/bin/sh
# Runs tests of the Python package with pytest, for CTest.
#   run_tests.sh LIBRARY TOOL TEST-MODULE...    LIBRARY: libkisam to load; TOOL: the kisam
#                                               tool, or "" where it is not built
#   run_tests.sh --sanitized                    reports the tests as skipped
# Exit status 77 means skipped.  The interpreter is the first of $KISAM_PYTHON, python3 on
# PATH and /usr/bin/python3 that has pytest: python3 on PATH may be one without it (a
# pyenv build, say) while the system's has Debian's python3-pytest.
set -u

if [ "${1:-}" = "--sanitized" ]; then
  echo "python tests skipped: a sanitizer build's libkisam cannot be loaded into a plain python3"
  exit 77
fi
lib=$1
tool=$2
shift 2

py=""
found=""
for cand in "${KISAM_PYTHON:-}" python3 /usr/bin/python3; do
  [ -n "$cand" ] || continue
  command -v "$cand" >/dev/null 2>&1 || continue
  found="$found $cand"
  if "$cand" -c 'import pytest' >/dev/null 2>&1; then
    py=$cand
    break
  fi
done
if [ -z "$py" ]; then
  if [ -z "$found" ]; then
    echo "python tests skipped: python3 is not installed"
  else
    echo "python tests skipped: pytest is not installed for$found (Debian: apt-get install python3-pytest)"
  fi
  exit 77
fi

# A private directory for the tests' temporary files, so that parallel runs never share.
base=$(mktemp -d "${TMPDIR:-/tmp}/kisam-pytest-XXXXXX") || exit 1
KISAM_LIBRARY=$lib KISAM_TOOL=$tool PYTHONDONTWRITEBYTECODE=1 \
  "$py" -m pytest -p no:cacheprovider -q --basetemp="$base" "$@"
rc=$?
rm -rf "$base"
exit $rc
