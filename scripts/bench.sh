#!/usr/bin/env bash
# The benchmarks in one command: install what is needed, build a Release
# tree in build-bench/ with the benchmarks on, and run them on the simulated
# host (the benchmark program writes the sysfs tree of each generated fabric
# itself, under /dev/shm or $MIRVAK_BENCH_DIR, and removes it afterwards).
# Arguments go to the benchmark program, e.g.
#   scripts/bench.sh --benchmark_filter=/large
# The results are also written to build-bench/bench-results.json.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >&2
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DMIRVAK_BUILD_BENCH=ON -DMIRVAK_BUILD_TESTS=OFF \
  -DMIRVAK_SANITIZE=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target mirvak_fabric_bench >&2
exec build-bench/bin/mirvak_fabric_bench \
  --benchmark_out=build-bench/bench-results.json --benchmark_out_format=json "$@"
