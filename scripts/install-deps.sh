#!/usr/bin/env bash
# Installs every Debian package that Hoplift's build, tests, local service and
# demo need. Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config git clang clang-format libclang-rt-14-dev
  # Qt 6 and the libraries Hoplift links
  qt6-base-dev qt6-base-dev-tools qt6-svg-dev qt6-qpa-plugins libqt6svg6
  qtkeychain-qt6-dev libminizip-dev zlib1g-dev libssl-dev
  # the local kelvara service
  libcpp-httplib-dev libbrotli-dev
  # tests: TLS certificates, a reference client, buses, secret store, power mock
  openssl curl python3 dbus dbus-x11 gnome-keyring libsecret-tools python3-dbusmock
  iproute2 util-linux zip unzip
  # desktop runs and screenshots
  xvfb xauth xdotool imagemagick desktop-file-utils fonts-dejavu-core
  # Debian packages and their checks: dpkg-shlibdeps, man pages, AppStream, lintian,
  # the desktop's MIME lookups, the user unit
  dpkg-dev file man-db appstream lintian xdg-utils systemd
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
