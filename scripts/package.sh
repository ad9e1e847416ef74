#!/usr/bin/env bash
# Builds the release DLL with its PDB (clang and lld) and writes the driver package:
# build/package/WQ400DeviceMft-<version>-x64/ (DLL, PDB, INF, trace message format file, README.txt)
# and build/package/WQ400DeviceMft-<version>-x64.zip. Install it on Windows as its README.txt says.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
source scripts/env.sh
mkdir -p build
echo "Building the release DLL and its PDB with clang and lld..."
build_release > build/package-build.log 2>&1 || { cat build/package-build.log; exit 1; }
version=$(sed -n 's/^#define WQ_VERSION_TEXT "\(.*\)"$/\1/p' user_space_frameworks/ModuleVersion.h)
name="WQ400DeviceMft-$version-x64"
out="build/package/$name"
rm -rf "$out" "$out.zip"
mkdir -p "$out"
cp "$build_release/module/WQ400DeviceMft.dll" "$build_release/module/WQ400DeviceMft.pdb" \
   "$build_release/package/WQ400DeviceMft.inf" tools/trace/WQ400DeviceMft.tmf "$out/"
sed 's/$/\r/' package/README.txt > "$out/README.txt"  # read on Windows
# A package whose DLL does not name its PDB, or whose PDB lacks the product's functions or line
# tables, cannot be debugged: refuse to write the zip.
dump="build/package/pdb-dump.txt"
x86_64-w64-mingw32-objdump -p "$out/WQ400DeviceMft.dll" > "$dump"
grep -q "format RSDS.*pdb WQ400DeviceMft.pdb" "$dump" ||
  { echo "package: the DLL's debug directory does not name WQ400DeviceMft.pdb" >&2; exit 1; }
llvm-pdbutil dump -symbols "$out/WQ400DeviceMft.pdb" > "$dump"
grep -q "S_GPROC32.*mft_core::WQ400DepthDeviceMft::StartOutputStream" "$dump" ||
  { echo "package: the PDB lacks the product's functions" >&2; exit 1; }
llvm-pdbutil dump -l "$out/WQ400DeviceMft.pdb" > "$dump"
grep -q "product/transforms/WQ400DepthDeviceMft.cpp" "$dump" ||
  { echo "package: the PDB lacks the product's line tables" >&2; exit 1; }
rm -f "$dump"
(cd build/package && zip -qr "$name.zip" "$name")
echo "Package: $PWD/$out"
ls -l "$out" | tail -n +2
echo "Zip: $PWD/$out.zip ($(stat -c %s "$out.zip") bytes)"
