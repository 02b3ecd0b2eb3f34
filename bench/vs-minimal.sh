#!/bin/sh
# Process-to-process wall time of `orvandeldsp run` against the least that does the same work, on 60 s
# of 48 kHz stereo S32 audio, in alternating paired runs (median of seven each):
#  - the ten-band stereo equaliser (configs/ten-band-eq.xml) against bench/minimal/MinimalEq.cpp, a
#    hand-written program running the library's section loop; target at most 1.10;
#  - the pass-through chain (configs/pass-through.xml) against a plain `sox in.wav out.wav` copy;
#    target at most 1.0.
# Usage: bench/vs-minimal.sh [BUILD_DIR]   (default: build; only a Release build, as scripts/bench.sh
# makes in build-bench, gives meaningful figures)
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd)
dsp=$build/tools/orvandeldsp
signal=$build/tools/orvandeldsp-test-signal
minimal=$build/bench/orvandeldsp-minimal-eq
for tool in "$dsp" "$signal" "$minimal"; do
    [ -x "$tool" ] || { echo "vs-minimal: $tool is missing; build the tools and benchmarks first" >&2; exit 1; }
done
. "$repo/bench/common.sh"
install_sox_if_missing

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$signal" "$work/in24.wav" 60 48000
sox "$work/in24.wav" -b 32 "$work/in.wav"


# Wall time in nanoseconds of the command given as arguments, its output removed first: ext4 flushes
# a file renamed over an existing one, which orvandeldsp does and the others do not.
timed() {
    rm -f "$work/out.wav"
    start=$(now)
    "$@" >/dev/null
    echo $(($(now) - start))
}

median() { sort -n | awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }'; }

# Seven pairs, the two commands alternating so that both see the same load; prints both medians.
pairs() {
    first=$1 second=$2
    : >"$work/a" && : >"$work/b"
    for _ in 1 2 3 4 5 6 7; do
        eval "timed $first" >>"$work/a"
        eval "timed $second" >>"$work/b"
    done
    echo "$(median <"$work/a") $(median <"$work/b")"
}

report() {
    echo "$2" | awk -v what="$1" -v target="$3" '{
        printf "%s: orvandeldsp %.3f s, %s %.3f s, ratio %.3f (target <= %s)\n", what, $1 / 1e9,
               what == "ten-band" ? "minimal" : "sox", $2 / 1e9, $1 / $2, target
    }'
}

run="\"$dsp\" run --quiet --period 1024"
report ten-band "$(pairs "$run -c \"$repo/configs/ten-band-eq.xml\" \"$work/in.wav\" \"$work/out.wav\"" \
    "\"$minimal\" \"$work/in.wav\" \"$work/out.wav\"")" 1.10
report pass-through "$(pairs "$run -c \"$repo/configs/pass-through.xml\" \"$work/in.wav\" \"$work/out.wav\"" \
    "sox \"$work/in.wav\" \"$work/out.wav\"")" 1.0
