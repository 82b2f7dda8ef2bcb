#!/usr/bin/env bash
# Builds Hoplift in release mode and runs its benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release
cmake --build --preset release -j "$(nproc)"
QT_QPA_PLATFORM=offscreen ./build/release/bench/bench_addfiles "${1:-100000}"
