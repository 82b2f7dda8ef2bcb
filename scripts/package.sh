#!/usr/bin/env bash
# Builds Hoplift's two Debian packages, hoplift and kelvara-local, from a release
# build and prints their paths. Installs what the build needs first.
#
#   bash scripts/package.sh
#   sudo apt-get install ./build/packages/hoplift_*.deb ./build/packages/kelvara-local_*.deb
#
# HOPLIFT_BUILD_DIR (default build/release, the release preset's folder) and
# HOPLIFT_PACKAGE_DIR (default build/packages) choose other folders.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

build=${HOPLIFT_BUILD_DIR:-build/release}
out=${HOPLIFT_PACKAGE_DIR:-build/packages}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release
# Only what goes into the packages: tests, benchmarks and tools are not built here.
cmake --build "$build" -j "$(nproc)" --target hoplift kelvara-local hoplift_packaging_files
mkdir -p "$out"
rm -f "$out"/*.deb
cpack --config "$build/CPackConfig.cmake" -B "$(realpath "$out")"
ls -1 "$(realpath "$out")"/*.deb
