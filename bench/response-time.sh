#!/bin/sh
# Wall time of `orvandeldsp response` over the bundled default chain at its default 200 frequencies,
# process to process; the goal is under one second. Prints hyperfine's summary (20 runs after 2 warm-ups).
# Usage: bench/response-time.sh [BUILD_DIR]   (default: build)
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd)
dsp=$build/tools/orvandeldsp
[ -x "$dsp" ] || { echo "response-time: $dsp is missing; build the tool first" >&2; exit 1; }

if ! command -v hyperfine >/dev/null 2>&1; then
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update
    $sudo apt-get install -y hyperfine
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
hyperfine --shell=none --warmup 2 --runs 20 "$dsp response --config $repo/configs/default.xml --csv $work/response.csv"
