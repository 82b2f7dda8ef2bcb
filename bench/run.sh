#!/usr/bin/env bash
# Builds Hoplift in release mode, runs every benchmark side by side with its reference and
# prints one table of ratios. Takes about ten minutes on two cores.
#
#   bash bench/run.sh
#
# Everything runs in a private network namespace (so the TLS service may listen on port 443
# without root), on a private session bus with its own unlocked secret store and a private
# system bus with a stand-in logind, under private XDG folders: nothing of the user's is used.
# With two or more cores the service runs on core 1 and the clients on core 0 (taskset).
# Each side is run three times, alternating, and the best run of each side is compared.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ -z "${HOPLIFT_BENCH_INNER:-}" ]; then
    bash scripts/install-deps.sh
    cmake --preset release >/dev/null
    cmake --build --preset release -j "$(nproc)"
    scratch=$(mktemp -d -p /dev/shm hoplift-bench.XXXXXX)
    trap 'rm -rf "$scratch"' EXIT
    export XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data" \
        XDG_CACHE_HOME="$scratch/cache" XDG_STATE_HOME="$scratch/state"
    mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME" "$XDG_STATE_HOME"
    HOPLIFT_BENCH_INNER="$scratch" QT_QPA_PLATFORM=offscreen \
        bash tests/run-in-netns.sh dbus-run-session -- sh tests/with-keyring.sh \
        bash bench/run.sh "$@"
    exit $?
fi

work="$HOPLIFT_BENCH_INNER"
bin=build/release
# What the programs log goes here; a failing step shows its end.
log=build/release/bench/bench.log
: >"$log"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT
trap 'echo "A benchmark failed; the end of $log:"; tail -n 20 "$log"' ERR
need() { # value, what: a step whose output was read in a substitution
    [ -n "$1" ] && return
    echo "$2 failed; the end of $log:"
    tail -n 20 "$log"
    exit 1
}

server_core=()
client_core=()
if [ "$(nproc)" -ge 2 ]; then
    server_core=(taskset -c 1)
    client_core=(taskset -c 0)
fi

# ---- the service: one unlimited account, plain HTTP on a free port and TLS on 443
cat >"$work/accounts.ini" <<'EOF'
[demo]
password = demo
quota = unlimited
EOF
start_service() { # name, options...
    local name=$1
    shift
    "${server_core[@]}" "$bin/server/kelvara-local" --data "$work/store" \
        --accounts "$work/accounts.ini" "$@" >"$work/$name.out" 2>/dev/null &
    pids+=($!)
    for _ in $(seq 100); do
        grep -q '^listening on ' "$work/$name.out" 2>/dev/null && break
        sleep 0.1
    done
    sed -n 's/^listening on //p' "$work/$name.out"
}
http=$(start_service http --port 0)
https=https://127.0.0.1
start_service https --tls --port 443 >/dev/null
stored="$work/store/demo"

# A private system bus with a stand-in logind, for the start-up run of the real program.
DBUS_SYSTEM_BUS_ADDRESS=$(dbus-daemon --session --fork --print-address=1 --print-pid=3 3>"$work/bus.pid")
export DBUS_SYSTEM_BUS_ADDRESS
pids+=("$(cat "$work/bus.pid")")
/usr/bin/python3 -m dbusmock --system --template logind >/dev/null 2>&1 &
pids+=($!)

best() { sort -g | head -n1; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
rows=()
row() { rows+=("$(printf '%-44s %12s %12s %8s   %s' "$@")"); }

# ---- upload of 1 GiB from the page cache, Hoplift's engine against curl
big="$work/upload.bin"
head -c 1G /dev/urandom >"$big"
for scheme in http https; do
    url=${!scheme}
    : >"$work/hl.$scheme"
    : >"$work/curl.$scheme"
    for _ in 1 2 3; do
        "${client_core[@]}" "$bin/bench/bench_upload" "$url" demo demo "$big" \
            >>"$work/hl.$scheme" 2>>"$log"
        rm -f "$stored"/*
        "${client_core[@]}" curl -sS -k -o /dev/null -w '%{time_total}\n' -u demo:demo \
            -H 'Expect:' -F "file=@$big" "$url/api/assets" >>"$work/curl.$scheme"
        rm -f "$stored"/*
    done
    hl=$(cut -d' ' -f1 "$work/hl.$scheme" | best)
    cu=$(best <"$work/curl.$scheme")
    label="upload 1 GiB, plain HTTP (throughput)"
    [ "$scheme" = https ] && label="upload 1 GiB, TLS (throughput)"
    row "$label" "${hl} s" "${cu} s" "$(ratio "$cu" "$hl")" "curl; target >= 0.90"
done
# Resident memory: the largest rise over all uploads of both kinds.
rise=$(cat "$work/hl.http" "$work/hl.https" | awk '{ r = $3 - $2; if (r > m) m = r } END { print m + 0 }')
base=$(cut -d' ' -f2 "$work/hl.http" | best)
row "resident memory rise during a 1 GiB upload" "${rise} KiB" "${base} KiB" \
    "$(ratio "$rise" "$base")" "rise / resident before; target rise < 5120 KiB"
rm -f "$big"

# ---- packing a bundle of 2,000 files, 500 MiB: text, random and already-compressed data
/usr/bin/python3 - "$work/bundle/Sample.app" <<'EOF'
import os, random, sys, zlib
random.seed(7)
root = sys.argv[1]
words = ("upload queue account folder bundle archive progress window service answer "
         "piece socket header request kelvara linux desktop photo image video music "
         "the of and to in is that it for on with as was at by be this from").split()
corpus = " ".join(random.choice(words) for _ in range(1_500_000)).encode()
# Already-compressed data: slices of the corpus deflated once, farther apart than any
# window a compressor looks back over.
packed = b"".join(zlib.compress(corpus[at:at + (1 << 20)], 9) for at in range(0, len(corpus), 1 << 20))
total, count = 500 << 20, 2000
for i in range(count):
    size = total // count
    folder = os.path.join(root, "Contents", "Resources", "r%02d" % (i % 40))
    os.makedirs(folder, exist_ok=True)
    kind = i % 3
    if kind == 0:
        at = random.randrange(len(corpus) - size)
        data = corpus[at:at + size]
        name = "notes%d.txt" % i
    elif kind == 1:
        data = os.urandom(size)
        name = "blob%d.bin" % i
    else:
        at = random.randrange(len(packed) - size)
        data = packed[at:at + size]
        name = "pack%d.gz" % i
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)
EOF
: >"$work/zip.hl"
: >"$work/zip.ref"
for _ in 1 2 3; do
    "${client_core[@]}" "$bin/bench/bench_zip" "$work/bundle/Sample.app" "$work/hl.zip" \
        >>"$work/zip.hl" 2>>"$log"
    rm -f "$work/hl.zip"
    start=$(date +%s%N)
    (cd "$work/bundle" && "${client_core[@]}" zip -r -q -6 "$work/ref.zip" Sample.app)
    echo "$(( $(date +%s%N) - start ))" | awk '{ printf "%.4f\n", $1 / 1e9 }' >>"$work/zip.ref"
    rm -f "$work/ref.zip"
done
hl=$(best <"$work/zip.hl")
ref=$(best <"$work/zip.ref")
row "pack a 2,000-file, 500 MiB bundle (time)" "${hl} s" "${ref} s" "$(ratio "$hl" "$ref")" \
    "zip -r -q -6; target <= 1.30"
rm -rf "$work/bundle"

# ---- adding a folder of 100,000 small files
read -r hl du perrow < <("${client_core[@]}" "$bin/bench/bench_addfiles" 100000 2>>"$log")
need "$perrow" "Adding files"
row "add a folder of 100,000 files (time)" "${hl} s" "${du} s" "$(ratio "$hl" "$du")" \
    "du -sb; target < 10 s"
row "resident memory per added row" "${perrow} B" "" "" "target < 2048 B"

# ---- one completion in queues of 1,000, 10,000 and 100,000 rows
for n in 1000 10000 100000; do
    read -r cost handover write < <("${client_core[@]}" "$bin/bench/bench_completion" "$http" "$n" 2>>"$log")
    need "$write" "The completion bench"
    rm -rf "${stored:?}"/*
    row "one completion, $n rows" "${cost} ms" "" "" "target < 5 ms at 10,000 rows"
    row "  of it, handing the saved queue over" "${handover} ms" "" "" ""
    row "  the saved queue's write (writer thread)" "${write} ms" "" "" "off the window's thread"
done

# ---- start-up of the real program to a verified account
su=$("${client_core[@]}" "$bin/bench/bench_startup" "$bin/hoplift" "$http" 2>>"$log")
row "start-up to a verified account" "${su} s" "1.0 s" "$(ratio "$su" 1)" "target < 1 s"

echo
echo "Hoplift $(git describe --always --dirty 2>/dev/null || echo '?'), $(date -u +%Y-%m-%d)"
echo "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(nproc) cores," \
    "$(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo), Linux $(uname -r)"
printf '%-44s %12s %12s %8s   %s\n' measure hoplift reference ratio "reference; target"
printf '%s\n' "${rows[@]}"
