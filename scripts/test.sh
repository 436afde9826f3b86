#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" -DMIXRANK_TESTS=ON
cd "$root/build"
ctest --output-on-failure -j"$(nproc)"
