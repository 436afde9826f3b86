#!/usr/bin/env bash
# Installs what is missing, builds, and runs the README's examples on
# Fisher's iris data in build/example/: mixrank-select on the CSV file (its
# reports go to build/example/select/), then the classic worked example (the
# programs write their files into the working directory): fits and scores
# mixtures with 1 to 6 components,
# labels the observations with the stored four-component model, and draws the
# report (iris.equal.png) and the classification (iris.equal.g4.png).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" -DMIXRANK_TESTS=OFF
mkdir -p "$root/build/example"
cd "$root/build/example"
cp "$root/examples/iris.dat" "$root/examples/iris.csv" .
"$root/build/mixrank-select" iris.csv --output-dir=select
"$root/build/mixrank" -equal -2 -g 6 -i iris.dat -p iris.param -s 1
"$root/build/mixrank-classify" -equal -g 4 -i iris.dat -p iris.param
"$root/build/mixrank-plot" iris.equal.risk
"$root/build/mixrank-plot" iris.equal.g4.class
