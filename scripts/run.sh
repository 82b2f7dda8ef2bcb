#!/usr/bin/env bash
# Installs what Hoplift needs, builds it and starts it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset debug
cmake --build --preset debug -j "$(nproc)"
exec ./build/debug/hoplift "$@"
