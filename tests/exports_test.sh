#!/usr/bin/env bash
# The plug-in's binary interface: what it exports and what it needs.
#   exports_test.sh LIBRARY EXPECTED_EXPORTS_FILE
# Passes when the defined dynamic symbols (demangled) are exactly the lines
# of the expected file and libtuskstor.so is a DT_NEEDED entry.
set -euo pipefail
lib=$1
expected=$2

actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt | sort)
want=$(grep -v '^#' "$expected" | sed '/^$/d' | sort)
if [ "$actual" != "$want" ]; then
  echo "exported symbols differ from $expected (< expected, > actual):"
  diff <(echo "$want") <(echo "$actual") || true
  exit 1
fi

if ! readelf -d "$lib" | grep -q 'NEEDED.*\[libtuskstor\.so\]'; then
  echo "libtuskstor.so is not a DT_NEEDED entry of $lib"
  readelf -d "$lib" | grep NEEDED
  exit 1
fi
echo "1 passed, 0 failed"
