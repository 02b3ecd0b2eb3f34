#!/usr/bin/env bash
# Period processing time of the default chain at 48 kHz in 1024-frame periods, as `orvandeldsp live`
# measures it (median, p99, p99.9, max) over SECONDS (default 60) on the tests' paced sound card:
# once quiet, once while another process sends 1,000 `set` calls a second over D-Bus. The target is a
# p99.9 within 1.5 times the median under the flood, and no xrun. Prints both summaries and the ratios.
# Usage: bench/live-load.sh [SECONDS]   (builds optimised into build-live-bench)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build-live-bench

scripts/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DORVANDELDSP_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target orvandeldsp-tool orvandeldsp-set-flood asound_module_pcm_livetest

export ALSA_CONFIG_PATH=$PWD/$build/tests/alsa/live-pcm.conf
export DSP=$PWD/$build/tools/orvandeldsp FLOOD=$PWD/$build/bench/orvandeldsp-set-flood
export FRAMES=$((seconds * 48000)) DURATION=$seconds

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
# On a bus of its own: one run quiet, one flooded from the moment it serves.
results=$(dbus-run-session -- bash -c '
    live() { "$DSP" live --bus session --frames "$FRAMES" --capture livetest --playback livetest 2>&1; }
    echo "quiet: $(live | tail -n 1)"
    exec 3< <(live)
    read -r serving <&3
    "$FLOOD" volume gain -3 -3.5 1000 "$DURATION" &
    flood=$!
    echo "flooded: $(tail -n 1 <&3)"
    wait "$flood"
' 2>&1 | grep -E "^(quiet|flooded|set-flood):")
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "$results"
echo "$results" | awk '/^(quiet|flooded):/ {
    for (i = 1; i < NF; ++i) {
        if ($i == "median" && !median) median = $(i + 1)
        if ($i == "p99") p99 = $(i + 1)
        if ($i == "p99.9") p999 = $(i + 1)
        if ($i == "max" && !max) max = $(i + 1)
    }
    printf "%s p99/median %.2f, p99.9/median %.2f, max/median %.2f\n", $1, p99 / median, p999 / median, max / median
    median = max = 0
}'
