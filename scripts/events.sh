#!/usr/bin/env bash
# The device events recording's tools, built for Windows and run under Wine:
#   scripts/events.sh dump <events.bin> [--kind ...] [--stream N] [--verbose]
#   scripts/events.sh replay <events.bin> [--dll <path>] [--class {CLSID}] [--repeat N]
#   scripts/events.sh trigger            (every flight recorder writes a file of its records)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
tool=${1:-}
[ $# -gt 0 ] && shift
case "$tool" in
  dump|replay|trigger) ;;
  *)
    echo "usage: scripts/events.sh dump|replay <events.bin> [options] | trigger" >&2
    exit 2
    ;;
esac
mkdir -p build
build_windows "events_$tool" > build/events-build.log 2>&1 || { cat build/events-build.log; exit 1; }
start_wine || true
# Host paths become the Windows paths Wine gives them.
args=()
for arg in "$@"; do
  if [ -e "$arg" ]; then args+=("$(/usr/lib/wine/wine64 winepath -w "$arg" 2>/dev/null)"); else args+=("$arg"); fi
done
set +e
/usr/lib/wine/wine64 "$build_win/tools/events_$tool.exe" "${args[@]}" </dev/null
status=$?
set -e
exit $status
