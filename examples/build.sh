#!/usr/bin/env bash
# Installs what the examples and the tests need from Debian (once), then
# builds TARGET in build/release, showing cmake's configure output only when
# it fails.
#
#   build.sh TARGET
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
packaging/install-dependencies.sh
echo "building lockstep and the example (the first time takes a few minutes)"
configure_log=$(mktemp)
cmake --preset release -S "$repo" >"$configure_log" 2>&1 || { cat "$configure_log"; exit 1; }
rm -f "$configure_log"
cmake --build --preset release --target "$1"
