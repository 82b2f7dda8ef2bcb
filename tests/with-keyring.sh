#!/bin/sh
# Runs a command with the desktop's secret store unlocked on the current session bus, as
# on a logged-in desktop: gnome-keyring keeps its keyring under $XDG_DATA_HOME.
set -e
eval "$(printf 'hoplift-tests' | gnome-keyring-daemon --unlock --components=secrets)"
export GNOME_KEYRING_CONTROL
exec "$@"
