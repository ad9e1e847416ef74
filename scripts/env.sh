# Sourced by the scripts: build folders and a project-local Wine prefix.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_win="$root/build/win"
build_native="$root/build/native"
build_release="$root/build/release"  # clang and lld: the DLL and PDB the driver package ships
release_module="$build_release/module/WQ400DeviceMft.dll"
export WINEPREFIX="$root/build/wine-prefix"
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono or Gecko install prompts in a headless prefix.
export WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64
wineserver=/usr/lib/wine/wineserver
jobs=$(nproc)

configure_and_build() {  # configure_and_build <build dir> [cmake args...] -- [targets...]
  local dir=$1; shift
  local args=() targets=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do args+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  targets=("$@")
  cmake -S "$root" -B "$dir" "${args[@]}" >/dev/null
  if [ ${#targets[@]} -gt 0 ]; then
    cmake --build "$dir" -j "$jobs" --target "${targets[@]}"
  else
    cmake --build "$dir" -j "$jobs"
  fi
}

# A compiler cache, when the machine has one, keeps rebuilds of several work trees cheap.
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(dirname "$root")}"
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi

# The gcc tree's DLL-level suites also run against the release DLL (the *_clang tests; build_release first).
build_windows() { configure_and_build "$build_win" "${launcher[@]}" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWQ_RELEASE_MODULE="$release_module" -- "$@"; }
# The release DLL, with its PDB and the INF; sources keep their full paths in the PDB's line tables,
# so the compiler cache is not told to make them relative.
build_release() { (unset CCACHE_BASEDIR; configure_and_build "$build_release" "${launcher[@]}" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/clang-mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo -- WQ400DeviceMft "$@"); }
build_native() { configure_and_build "$build_native" "${launcher[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -- "$@"; }

start_wine() {
  mkdir -p "$WINEPREFIX"
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    echo "wine: creating the prefix in $WINEPREFIX"
    /usr/lib/wine/wine64 wineboot -i >/dev/null 2>&1 || true
    "$wineserver" -w || true
  fi
  # A persistent server makes each test program start in a fraction of a second.
  "$wineserver" -p 2>/dev/null || true  # already running: reuse it
  # Start Wine's background services now, detached from our output: a test program that started them
  # would leave them holding ctest's pipe open.
  /usr/lib/wine/wine64 wineboot >/dev/null 2>&1 </dev/null || true
  trap '"$wineserver" -k 2>/dev/null || true' EXIT
}
