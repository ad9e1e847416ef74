#!/usr/bin/env bash
# Runs the simulated camera session: a device transform streams from the simulated camera for a few
# seconds, with a live progress line and a per-stream summary. Options go to the program:
#   scripts/run.sh [--camera depth|color|fisheye] [--streams 0,1,2] [--size 848x480] [--fps 30]
#                  [--seconds 5] [--quiet] [--record [--pixels]]
# With --record the transform's device events recording is switched on for the session and copied to
# build/events.bin afterwards (read it with scripts/events.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
echo "Building the transform and the simulated camera (the first build takes a few minutes)..."
mkdir -p build
build_windows sim_session > build/run-build.log 2>&1 || { cat build/run-build.log; exit 1; }
start_wine || true  # a server left running by an earlier run is reused
set +e
/usr/lib/wine/wine64 "$build_win/tools/sim_session.exe" "$@" </dev/null
status=$?
set -e
for arg in "$@"; do
  if [ "$arg" = "--record" ] && [ -f "$WINEPREFIX/drive_c/VeldaraLogs/events.bin" ]; then
    cp "$WINEPREFIX/drive_c/VeldaraLogs/events.bin" build/events.bin
    echo "Recording: build/events.bin ($(stat -c %s build/events.bin) bytes)"
  fi
done
exit $status
