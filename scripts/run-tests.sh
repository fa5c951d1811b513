#!/usr/bin/env bash
# Installs what is needed, builds kivbf and runs the whole test suite: a
# normal build, then one under AddressSanitizer + UndefinedBehaviorSanitizer.
# Any failing test or sanitizer report fails the command.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

scripts/setup.sh

run_suite() {
  local name=$1; shift
  echo "=== $name: build"
  scripts/build.sh "$name" "$@"
  echo "=== $name: test"
  ctest --test-dir "build/$name" --output-on-failure -j "$(nproc 2>/dev/null || echo 2)"
}

start=$SECONDS
run_suite native
run_suite saturating -DKIVBF_SATURATE_OUTPUT=ON -DKIVBF_BUILD_TOOLS=OFF
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite sanitizers -DKIVBF_SANITIZE=ON
echo "=== all suites passed in $((SECONDS - start)) s"
