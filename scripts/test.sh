#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors and runs every test, then
# builds and runs the whole suite again under AddressSanitizer + UndefinedBehaviorSanitizer,
# and once more under ThreadSanitizer, so that a race in the hand-offs between threads
# cannot land. After the plain run, an application is built against an install of it
# (scripts/consumer-test.sh) and the API reference is made (no undocumented public member).
#
#   scripts/test.sh          the three runs (what CI does)
#   scripts/test.sh --quick  the plain run and the consumer build only
#   scripts/test.sh --tsan   the suite under ThreadSanitizer only
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
scripts/check-includes.sh

jobs=$(nproc)
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp"

run_suite() {
  local preset=$1 dir=$2
  echo "== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "== ${preset}: tests"
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure
}

# The API reference: fails when a public member has no documentation.
docs() {
  echo "== docs"
  cmake --build "$1" --target docs
}

case "${1:-}" in
  --tsan)  run_suite tsan build-tsan ;;
  --quick) run_suite ci build; scripts/consumer-test.sh build ;;
  "")      run_suite ci build; scripts/consumer-test.sh build; docs build
           run_suite asan build-asan; run_suite tsan build-tsan ;;
  *)       echo "usage: scripts/test.sh [--quick|--tsan]" >&2; exit 64 ;;
esac
