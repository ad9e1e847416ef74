#!/usr/bin/env bash
# The device events recording's tools:
#   scripts/events.sh dump <events.bin> [--kind ...] [--stream N] [--verbose]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
tool=${1:-}
[ $# -gt 0 ] && shift
mkdir -p build
case "$tool" in
  dump)
    build_native events_dump > build/events-build.log 2>&1 || { cat build/events-build.log; exit 1; }
    exec "$build_native/tools/events_dump" "$@"
    ;;
  *)
    echo "usage: scripts/events.sh dump <events.bin> [options]" >&2
    exit 2
    ;;
esac
