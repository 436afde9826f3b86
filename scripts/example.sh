#!/usr/bin/env bash
# Installs what is missing, builds, and runs mixrank on Fisher's iris data in
# build/example/ (the run writes its files into the working directory).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" -DMIXRANK_TESTS=OFF
mkdir -p "$root/build/example"
cd "$root/build/example"
cp "$root/examples/iris.dat" .
"$root/build/mixrank" -equal -2 -g 6 -i iris.dat -p iris.param -s 1
