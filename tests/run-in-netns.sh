#!/usr/bin/env bash
# Runs a test in a private network namespace with only loopback up, where it may
# bind privileged ports such as 443 without being root. Exit 77 (skip) where the
# kernel refuses user namespaces.
set -u
if ! unshare -rn true 2>/dev/null; then
    echo "SKIP: user and network namespaces are not available here (unshare -rn failed)"
    exit 77
fi
exec unshare -rn sh -c 'ip link set lo up && exec "$@"' sh "$@"
