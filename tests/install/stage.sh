#!/usr/bin/env bash
# Installs the build tree into a fresh staging folder, as a user's
# `cmake --install` would.
#   stage.sh BUILD_DIR STAGE_DIR
set -euo pipefail
rm -rf "$2"
cmake --install "$1" --prefix "$2" >/dev/null
echo "installed into $2"
