#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the simulated session need, when missing.
# Idempotent; needs root only when something is missing.
set -euo pipefail
packages=(cmake make g++ git googletest g++-mingw-w64-x86-64-posix mingw-w64-x86-64-dev wine64 wine gnuplot-nox clang lld llvm zip)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
