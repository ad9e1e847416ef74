#!/usr/bin/env bash
# Builds (optimised) and runs every benchmark; each prints its BENCH line.
#   --marks   also builds the tree without the entry/exit trace marks and runs the frame-path
#             benchmarks of both trees one after the other, to show what the marks cost when off.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
build_win="$root/build/bench-win"
cmake -S "$root" -B "$build_win" "${launcher[@]}" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release >/dev/null
start_wine
if [ "${1:-}" != "--marks" ]; then
  cmake --build "$build_win" -j "$jobs" --target bench
  exit 0
fi
build_plain="$root/build/bench-win-nomarks"
cmake -S "$root" -B "$build_plain" "${launcher[@]}" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release -DWQ_SCOPE_MARKS=OFF >/dev/null
frame_path=(streaming_bench metadata_bench depth_product_bench)
for tree in "$build_plain" "$build_win"; do
  cmake --build "$tree" -j "$jobs" --target "${frame_path[@]}" >/dev/null
done
for round in 1 2; do
  for tree in "$build_plain" "$build_win"; do
    label=$([ "$tree" = "$build_win" ] && echo "marks" || echo "no marks")
    for program in "${frame_path[@]}"; do
      /usr/lib/wine/wine64 "$tree/bench/$program.exe" 2>/dev/null | sed "s/^BENCH /BENCH [$label, round $round] /"
    done
  done
done
