#!/usr/bin/env bash
# Installs what Hoplift needs, builds it twice (plain, and with the address and
# undefined-behaviour sanitizers) and runs every test in both, on a session bus of
# its own with no display needed, and runs each fuzz target for a bounded time. Then
# builds the Debian packages from a release build and checks them: their contents from
# an unpacked copy (nothing is installed on this machine), the programs in them, and
# the desktop, AppStream, systemd and lintian validators.
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
# fuzz: clang with libFuzzer and both sanitizers; it builds only the fuzz targets, and each
# of its tests runs one of them for a bounded time (tests/fuzz/CMakeLists.txt).
for preset in debug sanitize fuzz; do
    cmake --preset "$preset"
    cmake --build --preset "$preset" -j "$jobs"
    dbus-run-session -- env QT_QPA_PLATFORM=offscreen tests/with-keyring.sh \
        ctest --preset "$preset" --output-on-failure -j "$jobs"
done

# --- The Debian packages ----------------------------------------------------------
bash scripts/package.sh
version=$(sed -n 's/^project(Hoplift VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
arch=$(dpkg --print-architecture)
packages=$(realpath "${HOPLIFT_PACKAGE_DIR:-build/packages}")
fail() { echo "package check: $*" >&2; exit 1; }
# Runs a command and fails unless it succeeds without printing anything.
quiet() {
    local out
    out=$("$@" 2>&1) || fail "$* failed: $out"
    [ -z "$out" ] || fail "$* reported: $out"
}

declare -A expected
expected[hoplift]="usr/bin/hoplift
usr/share/applications/hoplift.desktop
usr/share/doc/hoplift/changelog.Debian.gz
usr/share/doc/hoplift/copyright
$(for size in 16 22 24 32 48 64 128 256 512; do echo "usr/share/icons/hicolor/${size}x${size}/apps/hoplift.png"; done)
usr/share/icons/hicolor/scalable/apps/hoplift.svg
usr/share/lintian/overrides/hoplift
usr/share/man/man1/hoplift.1.gz
usr/share/metainfo/com.kelvara.Hoplift.metainfo.xml"
expected[kelvara-local]="usr/bin/kelvara-local
usr/lib/systemd/user/kelvara-local.service
usr/share/doc/kelvara-local/changelog.Debian.gz
usr/share/doc/kelvara-local/copyright
usr/share/lintian/overrides/kelvara-local
usr/share/man/man1/kelvara-local.1.gz"
declare -A depends=([hoplift]=libqt6widgets6 [kelvara-local]=libcpp-httplib)

for name in hoplift kelvara-local; do
    deb="$packages/${name}_${version}-1_${arch}.deb"
    [ -f "$deb" ] || fail "$deb was not built"
    [ "$(dpkg-deb -f "$deb" Package)" = "$name" ] || fail "$deb: wrong Package field"
    [ "$(dpkg-deb -f "$deb" Version)" = "$version-1" ] || fail "$deb: wrong Version field"
    [ "$(dpkg-deb -f "$deb" Maintainer)" = "Hoplift developers <support@kelvara.com>" ] ||
        fail "$deb: wrong Maintainer field"
    # Dependencies computed from the binary by dpkg-shlibdeps.
    dpkg-deb -f "$deb" Depends | grep -q "\b${depends[$name]}" ||
        fail "$deb: Depends lacks ${depends[$name]}: $(dpkg-deb -f "$deb" Depends)"

    root="$scratch/unpacked/$name"
    mkdir -p "$root"
    dpkg-deb -x "$deb" "$root"
    actual=$(cd "$root" && find . ! -type d | sed 's|^\./||' | sort)
    [ "$actual" = "$(sort <<<"${expected[$name]}")" ] ||
        fail "$deb holds other files than expected:
$(diff <(sort <<<"${expected[$name]}") <(echo "$actual"))"

    binary="$root/usr/bin/$name"
    if readelf -S "$binary" | grep -Eq '\.symtab|\.debug_'; then fail "$binary is not stripped"; fi
    zcat "$root/usr/share/doc/$name/changelog.Debian.gz" | head -1 |
        grep -q "^hoplift ($version-1) " || fail "$name: changelog.Debian does not begin with $version-1"
    grep -q '^License: GPL-3.0-or-later$' "$root/usr/share/doc/$name/copyright" ||
        fail "$name: copyright names no license"
    # groff's warnings about the manual page, as lintian asks for them.
    quiet bash -c 'LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$1" >/dev/null' \
        man "$root/usr/share/man/man1/$name.1.gz"
done

# The packaged programs, with no display and no bus to talk to.
hoplift=$scratch/unpacked/hoplift/usr/bin/hoplift
headless=(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM
    DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent)
[ "$("${headless[@]}" "$hoplift" --version)" = "Hoplift $version" ] || fail "hoplift --version"
help=$("${headless[@]}" "$hoplift" --help) || fail "hoplift --help failed"
grep -q '^Usage: hoplift .*PATH' <<<"$help" || fail "hoplift --help: $help"
for option in --x -platform -; do
    status=0
    "${headless[@]}" "$hoplift" "$option" file >"$scratch/out" 2>"$scratch/err" || status=$?
    [ "$status" -eq 2 ] || fail "hoplift $option exited with $status, not 2"
    [ ! -s "$scratch/out" ] || fail "hoplift $option wrote to standard output"
    grep -qF "hoplift: unknown option '$option'" "$scratch/err" &&
        grep -qF "hoplift --help" "$scratch/err" || fail "hoplift $option: $(cat "$scratch/err")"
done
kelvara=$scratch/unpacked/kelvara-local/usr/bin/kelvara-local
help=$("$kelvara" --help) || fail "kelvara-local --help failed"
grep -q '^Usage: kelvara-local' <<<"$help" || fail "kelvara-local --help: $help"
"$kelvara" --port 0 --data "$scratch/kelvara-data" >"$scratch/kelvara.out" 2>/dev/null &
kelvara_pid=$!
for _ in $(seq 100); do grep -q '^listening on ' "$scratch/kelvara.out" && break; sleep 0.1; done
url=$(sed -n 's/^listening on //p' "$scratch/kelvara.out")
answer=$(curl -sf -u demo:demo "$url/api/user" || true)
kill "$kelvara_pid" 2>/dev/null || true
wait "$kelvara_pid" || true
grep -q '<first-name>Dana</first-name>' <<<"$answer" || fail "packaged kelvara-local did not answer: $answer"

# The validators.
quiet desktop-file-validate "$scratch/unpacked/hoplift/usr/share/applications/hoplift.desktop"
appstreamcli validate --no-net --strict --explain \
    "$scratch/unpacked/hoplift/usr/share/metainfo/com.kelvara.Hoplift.metainfo.xml"
appstreamcli validate-tree --no-net --strict --explain "$scratch/unpacked/hoplift"
# The user unit names its program by name, for systemd's search path; verify checks
# every other line, with that name resolved to the unpacked program and its manual.
unit="$scratch/unpacked/kelvara-local/usr/lib/systemd/user/kelvara-local.service"
[ "$(sed -n 's/^ExecStart=//p' "$unit")" = kelvara-local ] || fail "$unit: unexpected ExecStart"
grep -qx 'WantedBy=default.target' "$unit" || fail "$unit: not enabled for the user's session"
mkdir -p "$scratch/unit"
sed "s|^ExecStart=kelvara-local|ExecStart=$kelvara|" "$unit" >"$scratch/unit/kelvara-local.service"
quiet env MANPATH="$scratch/unpacked/kelvara-local/usr/share/man" \
    systemd-analyze verify "$scratch/unit/kelvara-local.service"
lintian --fail-on error,warning --display-info \
    "$packages/hoplift_${version}-1_${arch}.deb" "$packages/kelvara-local_${version}-1_${arch}.deb"
echo "Packages checked: hoplift and kelvara-local $version-1 in $packages"
