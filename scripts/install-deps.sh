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
  clang-14 libfuzzer-14-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
