#!/usr/bin/env bash
# The staging folder holds exactly the expected files, and the installed
# plug-in keeps its binary interface: the same exported names, libtuskstor.so
# as DT_NEEDED, and no run path; no installed file points into the build.
#   installed_layout_test.sh STAGE EXPECTED_FILES PLUGIN_RELPATH EXPORTS_TEST EXPECTED_EXPORTS BUILD_DIR
set -euo pipefail
stage=$1 expected=$2 plugin=$stage/$3 exports_test=$4 exports=$5 build=$6
failed=0

actual=$(cd "$stage" && find . \( -type f -o -type l \) -printf '%P\n' | sort | while read -r f; do
  if [ -L "$f" ]; then echo "$f -> $(readlink "$f")"; else echo "$f"; fi
done)
if [ "$actual" != "$(cat "$expected")" ]; then
  echo "FAIL staged files differ from $expected (< expected, > staged):"
  diff <(cat "$expected") <(echo "$actual") || true
  failed=1
else
  echo "ok   staged files: $(echo "$actual" | wc -l) as expected"
fi

if "$exports_test" "$plugin" "$exports" >/dev/null; then
  echo "ok   installed plug-in: exported names and DT_NEEDED libtuskstor.so"
else
  echo "FAIL installed plug-in's binary interface:"
  "$exports_test" "$plugin" "$exports" || true
  failed=1
fi

if readelf -d "$plugin" | grep -Eq '\((RUNPATH|RPATH)\)'; then
  echo "FAIL the installed plug-in has a run path:"
  readelf -d "$plugin" | grep -E 'RUNPATH|RPATH'
  failed=1
else
  echo "ok   installed plug-in has no run path"
fi

while read -r f; do
  if readelf -d "$f" 2>/dev/null | grep -E '\((RUNPATH|RPATH)\)' | grep -qF "$build"; then
    echo "FAIL $f has a run path into the build tree"
    failed=1
  fi
done < <(find "$stage" -type f \( -name '*.so' -o -perm -u+x \))

if [ "$failed" -ne 0 ]; then echo "0 passed, 1 failed"; exit 1; fi
echo "1 passed, 0 failed"
