#!/usr/bin/env bash
# The Debian packages in one command: install what packaging needs, build the
# packages from a copy of the sources with debhelper (debian/), and collect
# them in build-deb/:
#   mirvak-hba        the plug-in and mirvak-hba-register
#   mirvak-hba-dev    headers, pkg-config file, CMake package, agent guide
#   mirvak-hba-tools  mirvak-hba, mirvak-hba-exporter (with its TLS shims and
#                     systemd unit, installed but not enabled)
#   mirvak-hba-sim    the simulated driver library and host, mirvak-simhost
# Install them with: sudo apt install ./build-deb/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
# (install-deps.sh always installs the build's own libraries, the
# exporter's among them: prometheus-cpp-dev, libmicrohttpd-dev,
# libgnutls28-dev, libyaml-cpp-dev, libcrypt-dev.)
scripts/install-deps.sh build-essential debhelper dpkg-dev lintian help2man

version=$(sed -n 's/^project(mirvak_hba VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
out=$PWD/build-deb
# A fixed folder for the copy, so that the compiler cache finds its objects
# again on the next run.
work=$out/src
src=$work/mirvak-hba-$version
rm -rf "$work" "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
mkdir -p "$src"

# The sources as the checkout has them (without build trees), or all of the
# folder when it is not a git checkout.
if git rev-parse --show-toplevel >/dev/null 2>&1; then
  git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
    tar --null -T - -cf - | tar -C "$src" -xf -
else
  tar --exclude='./build*' --exclude=./.git -cf - . | tar -C "$src" -xf -
fi

# debhelper gives the build a HOME of its own: keep the usual compiler cache.
if command -v ccache >/dev/null; then
  CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir)}
  export CCACHE_DIR CCACHE_BASEDIR=$src CCACHE_NOHASHDIR=1
fi
(cd "$src" && dpkg-buildpackage --build=binary --no-sign -j"$(nproc)")
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
rm -rf "$work"
ls "$out"/*.deb
