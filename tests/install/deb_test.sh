#!/usr/bin/env bash
# The Debian packages scripts/package.sh built (in build-deb/):
#   deb_test.sh contents DEB_DIR VERSION EXPECTED_CONTENTS README
#       each package holds exactly the files listed for it;
#   deb_test.sh lintian DEB_DIR VERSION EXPECTED_CONTENTS README
#       lintian reports no error, and every warning it gives is one the
#       README lists with its reason;
#   deb_test.sh run DEB_DIR VERSION EXPECTED_CONTENTS README
#       the packages unpacked together (into a temporary folder, never onto
#       this machine) work: the packaged mirvak-simhost runs the packaged
#       mirvak-hba on the packaged plug-in, and mirvak-hba-register names
#       the plug-in where the package puts it.
# Without the packages the test is skipped (status 77), unless
# MIRVAK_REQUIRE_DEBS=1, when that is a failure.
set -euo pipefail
check=$1 dir=$2 version=$3 expected=$4 readme=$5
packages=(mirvak-hba mirvak-hba-dev mirvak-hba-tools mirvak-hba-sim)
arch=$(dpkg --print-architecture)

debs=()
for p in "${packages[@]}"; do
  f=$dir/${p}_${version}_${arch}.deb
  if [ ! -f "$f" ]; then
    if [ "${MIRVAK_REQUIRE_DEBS:-0}" = 1 ]; then
      echo "FAIL $f is missing: scripts/package.sh builds it"
      exit 1
    fi
    echo "skipped: $f is missing (scripts/package.sh builds it; MIRVAK_REQUIRE_DEBS=1 makes this a failure)"
    exit 77
  fi
  debs+=("$f")
done

case $check in
contents)
  # "package: mode owner path[ -> target]" for every entry, sorted.
  actual=$(for p in "${packages[@]}"; do
    dpkg-deb -c "$dir/${p}_${version}_${arch}.deb" |
      awk -v p="$p" '{ path = $6; for (i = 7; i <= NF; i++) path = path " " $i; sub(/^\./, "", path);
                       print p ": " $1 " " $2 " " path }'
  done | sort)
  want=$(sed "/^#/d; /^$/d; s/@ARCH@/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/g" "$expected" | sort)
  if [ "$actual" != "$want" ]; then
    echo "FAIL package contents differ from $expected (< expected, > built):"
    diff <(echo "$want") <(echo "$actual") || true
    exit 1
  fi
  echo "ok   $(echo "$actual" | wc -l) entries in ${#packages[@]} packages as expected"
  # The runtime package registers the plug-in when configured, unregisters
  # it when removed, and depends on no package for the maker's library.
  runtime=$dir/mirvak-hba_${version}_${arch}.deb
  failed=0
  grep -q '^ *mirvak-hba-register add' <(dpkg-deb -I "$runtime" postinst) || { echo "FAIL postinst does not register"; failed=1; }
  grep -q '^ *mirvak-hba-register remove' <(dpkg-deb -I "$runtime" prerm) || { echo "FAIL prerm does not unregister"; failed=1; }
  grep -qx 'activate-noawait ldconfig' <(dpkg-deb -I "$runtime" triggers) || { echo "FAIL no ldconfig trigger"; failed=1; }
  if dpkg-deb -f "$runtime" Depends | grep -qi tuskstor; then echo "FAIL mirvak-hba depends on a driver package"; failed=1; fi
  # The exporter's unit is installed, never enabled or started by the
  # package: it needs the maker's driver library.
  tools=$dir/mirvak-hba-tools_${version}_${arch}.deb
  # (debhelper's snippet for a unit not to enable re-enables it only where
  # the administrator had: under "deb-systemd-helper debian-installed".)
  postinst=$(dpkg-deb -I "$tools" postinst 2>/dev/null || true)
  if grep -q 'deb-systemd-invoke' <<<"$postinst"; then
    echo "FAIL mirvak-hba-tools' postinst starts the exporter's unit"; failed=1
  fi
  if grep -q 'deb-systemd-helper enable' <<<"$postinst" && ! grep -q 'deb-systemd-helper debian-installed' <<<"$postinst"; then
    echo "FAIL mirvak-hba-tools' postinst enables the exporter's unit"; failed=1
  fi
  [ "$failed" -eq 0 ] || exit 1
  echo "ok   maintainer scripts register and unregister; no package dependency for libtuskstor.so;"
  echo "     the exporter's unit is neither enabled nor started"
  ;;
lintian)
  out=$(lintian --fail-on none --tag-display-limit 0 "${debs[@]}" 2>&1)
  echo "$out"
  failed=0
  if grep -q '^E: ' <<<"$out"; then
    echo "FAIL lintian reports errors"
    failed=1
  fi
  # Warnings the README does not explain.
  while read -r tag; do
    if ! grep -qF "\`$tag\`" "$readme"; then
      echo "FAIL lintian warning $tag is not listed in $readme"
      failed=1
    fi
  done < <(sed -n 's/^W: [^ ]*: \([^ ]*\).*/\1/p' <<<"$out" | sort -u)
  [ "$failed" -eq 0 ] || exit 1
  ;;
run)
  root=$(mktemp -d)
  trap 'rm -rf "$root"' EXIT
  for f in "${debs[@]}"; do dpkg-deb -x "$f" "$root"; done
  libdir=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
  failed=0
  unset MIRVAK_SIM_ROOT MIRVAK_SIM_FABRIC LD_PRELOAD
  out=$(LD_LIBRARY_PATH="$root$libdir" "$root/usr/bin/mirvak-simhost" run -- "$root/usr/bin/mirvak-hba" --quiet adapters)
  if grep -qx 'Adapter 0: /dev/tuskstor1' <<<"$out" && grep -qx 'Adapter 1: /dev/tuskstor4' <<<"$out"; then
    echo "ok   packaged mirvak-hba on the packaged simulated host lists the default fabric's adapters"
  else
    echo "$out"
    echo "FAIL packaged mirvak-hba on the packaged simulated host"
    failed=1
  fi
  conf=$("$root/usr/bin/mirvak-simhost" run -- sh -c 'cat "$MIRVAK_SIM_ROOT/etc/hba.conf"')
  if grep -qxF "com.mirvak.fcoe	$root$libdir/libmirvakhbaapi.so" <<<"$conf"; then
    echo "ok   the packaged simulated host registers the packaged plug-in"
  else
    echo "$conf"
    echo "FAIL the packaged simulated host does not register the packaged plug-in"
    failed=1
  fi
  # The exporter has no run path; its TLS library is the system's GnuTLS,
  # which it names in its dynamic section, and no OpenSSL or private TLS
  # library is loaded.
  exporter=$root/usr/bin/mirvak-hba-exporter
  runpath=$(readelf -d "$exporter" | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]$/\2/p')
  multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
  tls=$(LD_LIBRARY_PATH="$root$libdir" ldd "$exporter" |
    awk '$1 ~ /^lib(gnutls|ssl|crypto|microhttpd)[.]so/ { sub("^/usr", "", $3); print $1 " " $3 }' | sort)
  if [ -z "$runpath" ] && readelf -d "$exporter" | grep -q 'NEEDED.*\[libgnutls[.]so[.]30\]' &&
     [ "$tls" = "libgnutls.so.30 /lib/$multiarch/libgnutls.so.30
libmicrohttpd.so.12 /lib/$multiarch/libmicrohttpd.so.12" ]; then
    echo "ok   packaged mirvak-hba-exporter has no run path and uses the system's GnuTLS"
  else
    echo "run path: $runpath"
    echo "$tls"
    echo "FAIL packaged mirvak-hba-exporter's run path or TLS libraries"
    failed=1
  fi
  "$root/usr/sbin/mirvak-hba-register" add --conf "$root/hba.conf" >/dev/null
  if [ "$(cat "$root/hba.conf")" = "com.mirvak.fcoe	$libdir/libmirvakhbaapi.so" ]; then
    echo "ok   mirvak-hba-register registers $libdir/libmirvakhbaapi.so"
  else
    cat "$root/hba.conf"
    echo "FAIL mirvak-hba-register does not register the packaged plug-in's path"
    failed=1
  fi
  [ "$failed" -eq 0 ] || exit 1
  ;;
*)
  echo "unknown check $check"
  exit 2
  ;;
esac
echo "1 passed, 0 failed"
