#!/usr/bin/env bash
# One version number everywhere: every installed program's --version, the
# pkg-config file, the CMake package and the Debian changelog show the
# project's version.
#   version_test.sh VERSION STAGE BINDIR SBINDIR LIBDIR CHANGELOG
set -euo pipefail
v=$1 stage=$2 bindir=$3 sbindir=$4 libdir=$5 changelog=$6
failed=0
check() {  # what, expected, actual
  if [ "$2" = "$3" ]; then echo "ok   $1: $3"; else echo "FAIL $1: '$3', expected '$2'"; failed=1; fi
}
for p in "$bindir/mirvak-hba" "$bindir/mirvak-hba-exporter" "$bindir/mirvak-simhost" "$bindir/mirvak-simscale" "$sbindir/mirvak-hba-register"; do
  name=$(basename "$p")
  check "$name --version" "$name $v" "$(LD_LIBRARY_PATH="$stage/$libdir/mirvak-hba/sim:$stage/$libdir" "$stage/$p" --version 2>&1)"
done
check "pkg-config --modversion mirvak-hba" "$v" \
  "$(PKG_CONFIG_PATH="$stage/$libdir/pkgconfig" pkg-config --modversion mirvak-hba 2>&1)"
check "CMake package version" "$v" \
  "$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' "$stage/$libdir/cmake/mirvak_hba/mirvak_hbaConfigVersion.cmake")"
check "debian/changelog" "$v" "$(sed -n '1s/^mirvak-hba (\([^)]*\)).*/\1/p' "$changelog")"
if [ "$failed" -ne 0 ]; then echo "0 passed, 1 failed"; exit 1; fi
echo "1 passed, 0 failed"
