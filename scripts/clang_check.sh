#!/usr/bin/env bash
# Compiles every product source with clang for the same MinGW-w64 target, warnings as errors: a second
# compiler's opinion, standing in for the MSVC build that cannot run here. Objects are thrown away.
set -euo pipefail
cd "$(dirname "$0")/.."
gcc_cxx=$(ls -d /usr/lib/gcc/x86_64-w64-mingw32/*-posix/include/c++ | sort -V | tail -1)
flags=(--target=x86_64-w64-mingw32 --sysroot=/usr/x86_64-w64-mingw32 -nostdinc++
       -isystem "$gcc_cxx" -isystem "$gcc_cxx/x86_64-w64-mingw32" -isystem "$gcc_cxx/backward"
       -std=c++17 -Wall -Wextra -Werror -O1 -I.
       -DWINVER=0x0A00 -D_WIN32_WINNT=0x0A00 -DUNICODE -D_UNICODE)
folders=(platform user_space_frameworks autoexposure device_events mft_core product module)
files=()
for folder in "${folders[@]}"; do
  [ -d "$folder" ] && while IFS= read -r f; do files+=("$f"); done < <(find "$folder" -name '*.cpp' | sort)
done
echo "clang: ${#files[@]} product sources for x86_64-w64-mingw32"
printf '%s\n' "${files[@]}" |
  xargs -P "$(nproc)" -I{} sh -c 'clang++ "$@" -c {} -o /dev/null || { echo "clang: {} failed" >&2; exit 1; }' _ "${flags[@]}"
echo "clang: all product sources build with warnings as errors"
