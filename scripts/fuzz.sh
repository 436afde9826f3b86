#!/usr/bin/env bash
# Builds the libFuzzer targets of the data and parameter-file readers with
# clang into build-fuzz/ (or $FUZZ_BUILD_DIR) and runs each for FUZZ_SECONDS
# seconds (default 60) on a copy of its seed corpus from fuzz/corpus/. A crash,
# a hang (over 10 s for one input), a sanitizer report or a failed check fails
# the run; the input that caused it is kept in <build>/fuzz-artifacts/<target>/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-$(nproc)}
targets=(read_data_detect read_data_sized readparam)

"$root/scripts/deps.sh" clang-14 libclang-rt-14-dev
cmake -S "$root" -B "$build" -DMIXRANK_FUZZ=ON -DMIXRANK_TESTS=OFF \
  -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:print_stacktrace=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
for t in "${targets[@]}"; do
  corpus="$build/fuzz-corpus/$t"
  artifacts="$build/fuzz-artifacts/$t"
  log="$build/fuzz-$t.log"
  rm -rf "$corpus"
  mkdir -p "$corpus" "$artifacts"
  cp "$root/fuzz/corpus/$t/"* "$corpus/"
  echo "Fuzzing $t for ${seconds}s"
  if ! "$build/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -max_len=4096 -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz_$t failed; the input is in $artifacts/" >&2
    exit 1
  fi
  grep -E '^(Done|stat::number_of_executed_units)' "$log" || true
done
echo "Fuzzing found nothing"
