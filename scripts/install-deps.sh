#!/usr/bin/env bash
# Install the Debian packages the project builds and tests with. Packages
# already present are left alone, so this needs no network on a machine
# that has them.
set -euo pipefail

packages=(
  cmake make g++ pkg-config ccache
  libhbaapi-dev libhbaapi2
  nlohmann-json3-dev libcli11-dev
  libgtest-dev libbenchmark-dev
  prometheus-cpp-dev libmicrohttpd-dev libgnutls28-dev libyaml-cpp-dev libcrypt-dev libsystemd-dev prometheus openssl curl
  systemd
  lsscsi sg3-utils prometheus-node-exporter libhbalinux2 fcoe-utils
  clang-14 libfuzzer-14-dev
  python3-jsonschema python3-yaml graphviz
)
# Further packages a caller needs (scripts/package.sh: the packaging tools).
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Prometheus and the node exporter come as services; the tests start their
# own on 127.0.0.1, so the machine's copies are neither started nor enabled.
# fcoe-utils' FCoE monitor is not wanted either: the tests run only its
# reading tools (fcoeadm, fcrls) on the simulated host.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\n# mirvak-hba install-deps: start no service while it installs\nexit 101\n' | $sudo tee "$policy" >/dev/null
  $sudo chmod 755 "$policy"
  trap '$sudo rm -f "$policy"' EXIT
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
# deb-systemd-helper acts only when it believes a package's maintainer
# script called it.
disable_units() {
  local package=$1
  shift
  if command -v deb-systemd-helper >/dev/null; then
    $sudo env DPKG_MAINTSCRIPT_PACKAGE="$package" DPKG_MAINTSCRIPT_NAME=postinst \
      deb-systemd-helper disable "$@" >/dev/null 2>&1 || true
  fi
}
for p in "${missing[@]}"; do
  case "$p" in
    prometheus|prometheus-node-exporter) disable_units "$p" "$p.service" ;;
    fcoe-utils) disable_units "$p" fcoe-utils.service fcoemon.socket ;;
  esac
done
