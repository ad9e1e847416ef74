#!/usr/bin/env bash
# Installs what is missing, builds the Windows and the native (sanitized) trees, and runs every test:
# the Windows programs under Wine's real Media Foundation, the portable parts natively as well. The
# release DLL (clang and lld, the one the driver package ships) is built too, and the suites that load
# the DLL by path run against it as well (the *_clang tests).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
build_native
build_release
build_windows
start_wine
status=0
echo "== second compiler: clang for the same Windows target =="
scripts/clang_check.sh || status=1
echo "== native tests (AddressSanitizer, UndefinedBehaviorSanitizer) =="
ctest --test-dir "$build_native" --output-on-failure -j "$jobs" || status=1
echo "== Windows tests under Wine =="
ctest --test-dir "$build_win" --output-on-failure -j "$jobs" || status=1
exit $status
