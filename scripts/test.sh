#!/usr/bin/env bash
# Installs what Hoplift needs, builds it twice (plain, and with the address and
# undefined-behaviour sanitizers) and runs every test in both, on a session bus of
# its own with no display needed.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc)
for preset in debug sanitize; do
    cmake --preset "$preset"
    cmake --build --preset "$preset" -j "$jobs"
    dbus-run-session -- env QT_QPA_PLATFORM=offscreen \
        ctest --preset "$preset" --output-on-failure -j "$jobs"
done
