#!/usr/bin/env bash
# Configure and build into build/ (or build-asan/ with --sanitize). With
# --tsan: build-tsan/, ThreadSanitizer, and only the concurrency test with
# what it loads (the plug-in, the simulated driver and host).
set -euo pipefail
cd "$(dirname "$0")/.."
# Cached objects are shared between checkouts in other folders.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
dir=build
flags=()
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  flags+=(-DMIRVAK_SANITIZE=ON -DMIRVAK_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
fi
targets=()
if [ "${1:-}" = "--tsan" ]; then
  dir=build-tsan
  flags+=(-DMIRVAK_TSAN=ON -DMIRVAK_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
  targets+=(--target mirvak_concurrency_tests)
fi
cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)" "${targets[@]}"
