#!/usr/bin/env bash
# Soak of the built DLL: six streams at 90 fps (the depth camera's depth and two infrared streams, two
# color cameras and the fisheye camera) in one process for the given seconds (default 60), once per
# recording mode (SOAK_MODES, default off,flight,full). Prints the frames per stream, lost frames, the
# latency the transform adds beside the bare platform path's, private memory after warm-up and at the
# end, handles and CPU per mode; exits 0 only when no frame was lost, memory and handles stayed flat and
# the flight recorder wrote one readable file for the firmware error raised halfway. CPU is the whole
# process's, which moves by several percent of a core with the machine's load (printed before and after);
# SOAK_MODES=off,flight,full,off,flight,full gives each mode's median of two runs; SOAK_RING=MB sets the
# flight recorder's ring (default 32; a small one wraps before the firmware error). The flight
# recorder's file is then replayed against the DLL.
#   scripts/soak.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
scripts/setup.sh
source scripts/env.sh
mkdir -p build
build_windows WQ400DeviceMft soak events_replay > build/soak-build.log 2>&1 || { cat build/soak-build.log; exit 1; }
start_wine || true  # a server left running by an earlier run is reused
echo "load before: $(uptime)"
status=0
/usr/lib/wine/wine64 "$build_win/tools/soak.exe" --seconds "$seconds" --modes "${SOAK_MODES:-off,flight,full}" \
  --ring "${SOAK_RING:-32}" </dev/null || status=$?
echo "load after: $(uptime)"
# The flight recorder's file replays against the DLL like a whole recording.
dump="$WINEPREFIX/drive_c/VeldaraLogs/soak-events.flight-0001.bin"
if [ -f "$dump" ]; then
  echo "Replay of the flight recorder's file:"
  /usr/lib/wine/wine64 "$build_win/tools/events_replay.exe" 'c:\VeldaraLogs\soak-events.flight-0001.bin' </dev/null | tail -3 || status=1
fi
exit $status
