#!/usr/bin/env bash
# Builds everything with a sanitizer and runs every test:
#   sanitize.sh           AddressSanitizer + UndefinedBehaviorSanitizer, in build-asan/
#   sanitize.sh thread    ThreadSanitizer, in build-tsan/
# ($SANITIZE_BUILD_DIR overrides the directory). Any report fails the run,
# also one from a child process whose exit status a test does not look at:
# reports are written to files, which must stay absent.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-address}
jobs=${JOBS:-$(nproc)}
"$root/scripts/deps.sh"

if [ "$mode" = thread ]; then
  build=${SANITIZE_BUILD_DIR:-$root/build-tsan}
  option=-DMIXRANK_TSAN=ON
  reports=$build/sanitizer-reports
  export TSAN_OPTIONS="halt_on_error=1:exitcode=66:second_deadlock_stack=1:log_path=$reports/report:suppressions=$root/scripts/tsan.supp"
else
  build=${SANITIZE_BUILD_DIR:-$root/build-asan}
  option=-DMIXRANK_SANITIZE=ON
  reports=$build/sanitizer-reports
  common="halt_on_error=1:print_stacktrace=1:exitcode=86:log_path=$reports/report"
  export ASAN_OPTIONS="$common:detect_leaks=1:abort_on_error=0"
  export UBSAN_OPTIONS="$common"
  export LSAN_OPTIONS="exitcode=86:log_path=$reports/report"
fi
cmake -S "$root" -B "$build" "$option" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs"
rm -rf "$reports"
mkdir -p "$reports"

status=0
(cd "$build" && ctest --output-on-failure -j"$jobs") || status=$?
if compgen -G "$reports/report*" >/dev/null; then
  echo "Sanitizer reports ($mode):" >&2
  cat "$reports"/report* >&2
  exit 1
fi
exit "$status"
