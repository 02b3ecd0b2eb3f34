#!/usr/bin/env bash
# The README's first command: installs what the build needs, builds the orvandeldsp tool into build/,
# makes a test signal and runs it through the bundled default chain, printing the summary and the
# meters; the processed WAV and a picture of the chain land in out/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build"
out="$root/out"

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build"
cmake --build "$build" -j2 --target orvandeldsp-tool orvandeldsp-test-signal

mkdir -p "$out"
"$build/tools/orvandeldsp-test-signal" "$out/test-signal.wav" 5
"$build/tools/orvandeldsp" run --meters "$out/test-signal.wav" "$out/default-output.wav"
"$build/tools/orvandeldsp" graph -o "$out/default-chain.svg"

echo "input:  $out/test-signal.wav (5 s: sweep left, 1 kHz right)"
echo "output: $out/default-output.wav"
echo "chain:  $out/default-chain.svg"
