#!/bin/sh
# Runs a test program under Wine for ctest. The first Wine program that needs a desktop starts Wine's
# desktop process, which keeps that program's output open and lives as long as any later test uses the
# desktop: ctest, reading to the end of that output, would count the whole run as the first test's.
# The output goes through a file instead, and ctest gets it when the program ends.
output=$(mktemp)
/usr/lib/wine/wine64 "$@" >"$output" 2>&1
status=$?
cat "$output"
rm -f "$output"
exit $status
