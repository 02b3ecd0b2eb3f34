#!/bin/sh
# Wall time of `orvandeldsp run` with seven stereo peaking biquads (configs/seven-peaks.xml) against
# sox with the same seven equalizer bands, on 60 s of generated 48 kHz stereo audio, process to
# process, orvandeldsp with 1024-frame periods. Prints both times (best of three runs each) and the ratio; the goal is at most 0.6.
# Usage: bench/vs-sox.sh [BUILD_DIR]   (default: build; only a Release build, as scripts/bench.sh makes
# in build-bench, gives meaningful figures)
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd)
dsp=$build/tools/orvandeldsp
signal=$build/tools/orvandeldsp-test-signal
config=$repo/configs/seven-peaks.xml
for tool in "$dsp" "$signal"; do
    [ -x "$tool" ] || { echo "vs-sox: $tool is missing; build the tools first" >&2; exit 1; }
done

. "$repo/bench/common.sh"
install_sox_if_missing

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$signal" "$work/in.wav" 60 48000

# The bands of configs/seven-peaks.xml: frequency, Q, gain in dB.
bands="63 1 3
160 1.2 -2
400 1.4 1.5
1000 1 -3
2500 1.4 2
6300 1.2 -2
12000 0.9 3"
effects=$(echo "$bands" | while read -r f q g; do printf 'equalizer %s %sq %s ' "$f" "$q" "$g"; done)


# Best of three wall times in nanoseconds of the command given as arguments. The outputs go first:
# ext4 flushes a file renamed over an existing one, which orvandeldsp does and sox does not.
best() {
    b=""
    for _ in 1 2 3; do
        rm -f "$work/sox.wav" "$work/dsp.wav"
        start=$(now)
        "$@" >/dev/null
        t=$(($(now) - start))
        if [ -z "$b" ] || [ "$t" -lt "$b" ]; then b=$t; fi
    done
    echo "$b"
}

# shellcheck disable=SC2086 # the effect list is meant to split into words
sox_ns=$(best sox "$work/in.wav" "$work/sox.wav" $effects)
dsp_ns=$(best "$dsp" run --quiet --period 1024 --config "$config" "$work/in.wav" "$work/dsp.wav")

awk -v d="$dsp_ns" -v s="$sox_ns" 'BEGIN {
    printf "orvandeldsp %.3f s, sox %.3f s, ratio %.3f (target <= 0.6)\n", d / 1e9, s / 1e9, d / s
}'
