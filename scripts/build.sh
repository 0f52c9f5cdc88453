#!/usr/bin/env bash
# Configure and build into build/ (or build-asan/ with --sanitize).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build
flags=()
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  flags+=(-DMIRVAK_SANITIZE=ON -DMIRVAK_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
fi
cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)"
