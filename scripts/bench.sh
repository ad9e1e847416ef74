#!/usr/bin/env bash
# Builds (optimised) and runs every benchmark; each prints its BENCH line.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
build_win="$root/build/bench-win"
cmake -S "$root" -B "$build_win" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release >/dev/null
start_wine
cmake --build "$build_win" -j "$jobs" --target bench
