#!/usr/bin/env bash
# A management agent built against the staged install and run on the
# simulated host: the agent guide's example, configured with find_package
# (MODE cmake) or pkg-config (MODE pkgconfig), built, and started by the
# installed mirvak-simhost on its default fabric.
#   consumer_test.sh MODE STAGE BINDIR LIBDIR SIMDIR CONSUMER_SRC GUIDE WORK VERSION [EXTRA_FLAGS]
set -euo pipefail
mode=$1 stage=$2 bindir=$3 libdir=$4 simdir=$5 src=$6 guide=$7 work=$8 version=$9 flags=${10:-}
rm -rf "$work"
mkdir -p "$work"

# The guide's example is the program: the one C++ block in the guide.
awk '/^```cpp$/ {inside = 1; next} /^```$/ {inside = 0} inside' "$guide" > "$work/agent.cpp"
[ -s "$work/agent.cpp" ] || { echo "FAIL no C++ example in $guide"; exit 1; }

# The simulated driver library stands in for the maker's when linking.
cmake -S "$src" -B "$work/build" -DMIRVAK_CONSUMER_MODE="$mode" -DMIRVAK_CONSUMER_SOURCE="$work/agent.cpp" \
  -DMIRVAK_CONSUMER_VERSION="$version" -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,$stage/$simdir" >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log"; echo "FAIL configuring the consumer ($mode)"; exit 1; }
cmake --build "$work/build" >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; echo "FAIL building the consumer ($mode)"; exit 1; }

# Found where a user's loader finds the installed plug-in; the simulated
# driver library comes from mirvak-simhost.
export LD_LIBRARY_PATH="$stage/$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
unset MIRVAK_SIM_ROOT MIRVAK_SIM_FABRIC LD_PRELOAD
out=$("$stage/$bindir/mirvak-simhost" run -- "$work/build/consumer" 2>"$work/stderr") ||
  { echo "$out"; cat "$work/stderr"; echo "FAIL the consumer ($mode) failed on the simulated host"; exit 1; }
echo "$out"
# What the agent prints about the default fabric.
expected=$(cat <<'END'
adapter /dev/tuskstor1: Mirvak MVF-2210
  port 0: WWPN 21 00 00 1b 9e a1 00 00
  port 1: WWPN 21 00 00 1b 9e a1 00 01
adapter /dev/tuskstor4: Mirvak MVF-4420
  port 0: WWPN 21 00 00 1b 9e b4 00 00
  port 1: WWPN 21 00 00 1b 9e b4 00 01
  port 2: WWPN 21 00 00 1b 9e b4 00 02
END
)
got=$(grep -E '^(adapter |  port )' <<<"$out" || true)
if [ "$got" != "$expected" ]; then
  echo "FAIL the consumer ($mode) did not print the default fabric's adapters and ports (< expected, > printed):"
  diff <(echo "$expected") <(echo "$got") || true
  exit 1
fi
grep -Eq '^snapshot: [1-9][0-9]* bytes$' <<<"$out" || { echo "FAIL no snapshot"; exit 1; }
echo "1 passed, 0 failed"
