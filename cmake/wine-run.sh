#!/usr/bin/env bash
# Runs one Windows program. googletest's premature-exit file tells a test program that ended with code 0 before its
# last test from one that passed.
. "$(dirname "$0")/wine-env.sh"
f=$(mktemp "${TMPDIR:-/tmp}/tqexit.XXXXXX"); rm -f "$f"
TEST_PREMATURE_EXIT_FILE="Z:$(echo "$f" | tr / '\\')"; export TEST_PREMATURE_EXIT_FILE
$W "$@"; rc=$?
[ -e "$f" ] && { rm -f "$f"; [ $rc -eq 0 ] && rc=99; }
exit $rc
