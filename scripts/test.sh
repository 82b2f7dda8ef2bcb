#!/usr/bin/env bash
# Installs what Hoplift needs, builds it twice (plain, and with the address and
# undefined-behaviour sanitizers) and runs every test in both, on a session bus of
# its own with no display needed.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc)
# Settings, the keyring and caches of the tests live in a home of their own, never the
# user's: the secret store the tests start keeps its keyrings under XDG_DATA_HOME.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data" \
    XDG_CACHE_HOME="$scratch/cache" XDG_STATE_HOME="$scratch/state"
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME" "$XDG_STATE_HOME"
for preset in debug sanitize; do
    cmake --preset "$preset"
    cmake --build --preset "$preset" -j "$jobs"
    dbus-run-session -- env QT_QPA_PLATFORM=offscreen tests/with-keyring.sh \
        ctest --preset "$preset" --output-on-failure -j "$jobs"
done
