#!/usr/bin/env bash
# Installs what Hoplift needs, builds it and runs every test, on a session bus of
# its own with no display needed.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc)
cmake --preset debug
cmake --build --preset debug -j "$jobs"
dbus-run-session -- env QT_QPA_PLATFORM=offscreen \
    ctest --preset debug --output-on-failure -j "$jobs"
