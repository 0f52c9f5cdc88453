#!/usr/bin/env bash
# Every test: install what is needed, build, run the suite; then build again
# with AddressSanitizer and UndefinedBehaviorSanitizer and run the suite
# under them, and build the concurrency test with the plug-in and the
# simulated driver under ThreadSanitizer and run it (any report fails).
# --quick skips the sanitizer passes.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

scripts/build.sh
# The Debian packages, which the suite's package tests read from build-deb/.
scripts/package.sh
export MIRVAK_REQUIRE_DEBS=1
(cd build && ctest --output-on-failure -j"$(nproc)")

if [ "${1:-}" != "--quick" ]; then
  scripts/build.sh --sanitize
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:halt_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  (cd build-asan && ctest --output-on-failure -j"$(nproc)")

  # Several threads at once under ThreadSanitizer (build-tsan/ holds only
  # that test and what it loads).
  scripts/build.sh --tsan
  export TSAN_OPTIONS=halt_on_error=1:exitcode=66
  (cd build-tsan && ctest --output-on-failure)

  # Every fuzz target for 20 seconds (fuzz/README.md).
  scripts/fuzz.sh 20
fi
