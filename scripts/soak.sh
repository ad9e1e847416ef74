#!/usr/bin/env bash
# Soak of the built DLL: six streams at 90 fps (the depth camera's depth and two infrared streams, two
# color cameras and the fisheye camera) in one process for the given seconds (default 60). Prints the
# frames per stream, lost frames, private memory after warm-up and at the end, handles and CPU time per
# frame; exits 0 only when no frame was lost and memory and handles stayed flat.
#   scripts/soak.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
scripts/setup.sh
source scripts/env.sh
mkdir -p build
build_windows WQ400DeviceMft soak > build/soak-build.log 2>&1 || { cat build/soak-build.log; exit 1; }
start_wine || true  # a server left running by an earlier run is reused
/usr/lib/wine/wine64 "$build_win/tools/soak.exe" --seconds "$seconds" </dev/null
