#!/usr/bin/env bash
# Takes the README's screenshots under a virtual X server, at 1x and 2x, in a light and a
# dark theme: the real window against a local kelvara service with its demo account.
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-docs/screenshots}
mkdir -p "$out"
cmake --preset debug >/dev/null
cmake --build --preset debug -j "$(nproc)" --target hoplift_screenshots kelvara-local

work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
./build/debug/server/kelvara-local --port 0 --data "$work/data" >"$work/service.out" 2>/dev/null &
for _ in $(seq 100); do grep -q '^listening on ' "$work/service.out" && break; sleep 0.1; done
url=$(sed -n 's/^listening on //p' "$work/service.out")

shoot() { # scale, suffix, extra arguments
    XDG_DATA_HOME="$work/home" QT_SCALE_FACTOR=$1 xvfb-run -a -s '-screen 0 1600x1400x24' \
        dbus-run-session -- tests/with-keyring.sh \
        ./build/debug/tools/hoplift_screenshots "$url" "$out" "$2" "${@:3}" 2>/dev/null
}
mkdir -p "$work/home"
shoot 1 ""
shoot 2 "@2x"
shoot 1 "-dark" --dark
echo "screenshots in $out"
