#!/usr/bin/env bash
# Build the libFuzzer targets of fuzz/ into build-fuzz/ (clang, with
# AddressSanitizer and UndefinedBehaviorSanitizer) and run each for SECONDS
# seconds (default 60) on its seed corpus. A crash, a leak, a sanitizer
# report or a hang (an input running longer than 10 s) fails the script and
# leaves the input in build-fuzz/crashes/<target>/.
#   scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
shift || true
scripts/install-deps.sh

export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
cmake -S . -B build-fuzz -DMIRVAK_FUZZ=ON -DMIRVAK_BUILD_TESTS=OFF -DMIRVAK_BUILD_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
cmake --build build-fuzz --target fuzz_all -j"$(nproc)"

targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(driver_records host_sysfs scsi_answers snapshot_decode fabric_json command_line)

# Allocations larger than 512 MiB fail (a driver's count of 4 billion asks
# for that much): the library must answer its allocation failure, which the
# sanitizer's allocator then shows it as malloc would, by a null pointer.
# A 32 MiB quarantine of released blocks (still many inputs' worth) and
# allocation stacks of 8 frames keep the allocation-heavy targets (the
# command line, the snapshot decoder) from spending their time there.
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1:max_allocation_size_mb=512:abort_on_error=1:quarantine_size_mb=32:malloc_context_size=8
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for t in "${targets[@]}"; do
  corpus="$PWD/build-fuzz/corpus/$t"
  crashes="$PWD/build-fuzz/crashes/$t"
  mkdir -p "$corpus" "$crashes"
  # Slow inputs (an endless driver chain walked to its bound on every
  # request) are mutated less often than fast ones, not left out.
  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -entropic_scale_per_exec_time=1 -artifact_prefix="$crashes/")
  [ -f "fuzz/dict/$t.dict" ] && args+=(-dict="$PWD/fuzz/dict/$t.dict")
  case "$t" in
    snapshot_decode) args+=(-max_len=262144) ;;
    # An answer arrives in the program's 1024-byte transfer (the selector
    # byte first): longer inputs only make the printers slow.
    scsi_answers) args+=(-max_len=1025) ;;
    command_line) args+=(-close_fd_mask=3) ;;
  esac
  echo "== fuzz_$t: $seconds s"
  build-fuzz/fuzz/fuzz_"$t" "${args[@]}" "$corpus" "$PWD/fuzz/corpus/$t" 2>&1 | grep -v -E "^#[0-9]+\s+(NEW|REDUCE|pulse|RELOAD)" | tail -n 40
done
