#!/usr/bin/env bash
# Installs what Hoplift needs, builds it, starts the local kelvara service with a
# demo account and starts Hoplift against it. Quitting Hoplift stops the service.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    echo "There is no display to show Hoplift on. Run it in a virtual X server:"
    echo "    apt-get install xvfb && xvfb-run -a -s '-screen 0 1280x800x24' bash scripts/run.sh"
    echo "(and take screenshots with: import -display :99 -window root shot.png)"
    exit 1
fi

bash scripts/install-deps.sh
cmake --preset debug
cmake --build --preset debug -j "$(nproc)"

work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# The demo account's files stay between runs.
data="${XDG_DATA_HOME:-$HOME/.local/share}/hoplift-demo"
mkdir -p "$data"
./build/debug/server/kelvara-local --port 0 --data "$data" >"$work/service.out" 2>"$work/service.log" &
pids+=($!)
for _ in $(seq 100); do
    grep -q '^listening on ' "$work/service.out" 2>/dev/null && break
    sleep 0.1
done
url=$(sed -n 's/^listening on //p' "$work/service.out")
if [ -z "$url" ]; then
    echo "The local kelvara service did not start:"; cat "$work/service.log"; exit 1
fi

# Hoplift needs logind on the system bus for sleep and wake; a container or bare
# machine has none, so bring up a private system bus with a stand-in logind.
if ! dbus-send --system --print-reply --dest=org.freedesktop.DBus / \
        org.freedesktop.DBus.GetId >/dev/null 2>&1; then
    echo "No system bus here: starting a private one with a stand-in logind."
    DBUS_SYSTEM_BUS_ADDRESS=$(dbus-daemon --session --fork --print-address=1 --print-pid=3 3>"$work/bus.pid")
    export DBUS_SYSTEM_BUS_ADDRESS
    pids+=("$(cat "$work/bus.pid")")
    /usr/bin/python3 -m dbusmock --system --template logind >"$work/logind.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 50); do
        gdbus introspect --system -d org.freedesktop.login1 -o /org/freedesktop/login1 \
            >/dev/null 2>&1 && break
        sleep 0.1
    done
fi

cat <<MSG

The local kelvara service runs at $url (files kept in $data).
In Hoplift's account sheet type:
    Account URL:  $url
    User name:    demo
    Password:     demo

MSG
# The update check asks the local service too, which has no newer version to offer.
HOPLIFT_APPCAST_URL="$url/hoplift/appcast.xml" ./build/debug/hoplift "$@"
