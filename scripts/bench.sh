#!/usr/bin/env bash
# Builds the benchmarks (RelWithDebInfo) and runs each one, printing the figures and writing
# JSON results to build/bench/results/. Extra arguments go to every benchmark binary, e.g.
#   scripts/bench.sh --benchmark_filter=Sort --benchmark_repetitions=5
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWSB_BUILD_TESTS=OFF \
  -DWSB_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build/bench -j "$(nproc)"
mkdir -p build/bench/results
for bin in build/bench/bin/*Bench; do
  name=$(basename "$bin")
  echo "=== $name"
  "$bin" --benchmark_out="build/bench/results/$name.json" --benchmark_out_format=json "$@"
done
