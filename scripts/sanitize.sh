#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer into
# build-asan/ (or $SANITIZE_BUILD_DIR) and runs every test. Any sanitizer
# report fails the run, also one from a child process whose exit status a test
# does not look at: reports are written to files, which must stay absent.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${SANITIZE_BUILD_DIR:-$root/build-asan}
jobs=${JOBS:-$(nproc)}
"$root/scripts/deps.sh"
cmake -S "$root" -B "$build" -DMIXRANK_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs"

reports="$build/sanitizer-reports"
rm -rf "$reports"
mkdir -p "$reports"
common="halt_on_error=1:print_stacktrace=1:exitcode=86:log_path=$reports/report"
export ASAN_OPTIONS="$common:detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="$common"
export LSAN_OPTIONS="exitcode=86:log_path=$reports/report"

status=0
(cd "$build" && ctest --output-on-failure -j"$jobs") || status=$?
if compgen -G "$reports/report*" >/dev/null; then
  echo "Sanitizer reports:" >&2
  cat "$reports"/report* >&2
  exit 1
fi
exit "$status"
