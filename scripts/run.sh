#!/usr/bin/env bash
# Runs the simulated camera session through the built DLL. With no options: the tour of the depth, color
# and fisheye cameras with their controls, the per-frame exposure values as CSV and a PNG chart of them.
# With options, one camera's session:
#   scripts/run.sh [--camera depth|color|fisheye] [--streams 0,1,2] [--size 848x480] [--fps 30]
#                  [--seconds 5] [--quiet] [--record [--pixels]] [--dll PATH]
# With --record the transform's device events recording is switched on for the session and copied to
# build/events.bin afterwards (read it with scripts/events.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
echo "Building the DLL and the simulated camera (the first build takes a few minutes)..."
mkdir -p build
build_windows WQ400DeviceMft sim_session > build/run-build.log 2>&1 || { cat build/run-build.log; exit 1; }
start_wine || true  # a server left running by an earlier run is reused
tour=1
for arg in "$@"; do
  case "$arg" in --dll) ;; *) [ "${prev:-}" = "--dll" ] || tour=0 ;; esac
  prev=$arg
done
set +e
/usr/lib/wine/wine64 "$build_win/tools/sim_session.exe" "$@" </dev/null
status=$?
set -e
rows() { [ -f "$1" ] && wc -l < "$1" || echo 0; }
if [ $tour -eq 1 ] && [ "$(rows build/tour/depth_exposure.csv)" -gt 1 ] && [ "$(rows build/tour/fisheye_exposure.csv)" -gt 1 ]; then
  if gnuplot -e "folder='build/tour'" tools/tour.gnuplot 2>build/tour/gnuplot.log; then
    echo "Chart: $PWD/build/tour/exposure.png (from $PWD/build/tour/depth_exposure.csv and fisheye_exposure.csv)"
  else
    echo "gnuplot could not render the chart:"; cat build/tour/gnuplot.log
    status=1
  fi
fi
for arg in "$@"; do
  if [ "$arg" = "--record" ] && [ -f "$WINEPREFIX/drive_c/VeldaraLogs/events.bin" ]; then
    cp "$WINEPREFIX/drive_c/VeldaraLogs/events.bin" build/events.bin
    echo "Recording: build/events.bin ($(stat -c %s build/events.bin) bytes)"
  fi
done
exit $status
