#!/usr/bin/env bash
# Builds optimised and runs the benchmarks, then the process-to-process comparisons with sox and with a
# minimal program, and the wall time of a frequency response measurement; figures are only comparable
# within one run.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DORVANDELDSP_BUILD_TESTS=OFF
cmake --build build-bench -j "$(nproc)" --target orvandeldsp-bench orvandeldsp-tool orvandeldsp-test-signal \
    orvandeldsp-minimal-eq
build-bench/bench/orvandeldsp-bench "$@"
bench/vs-sox.sh build-bench
bench/vs-minimal.sh build-bench
bench/response-time.sh build-bench
