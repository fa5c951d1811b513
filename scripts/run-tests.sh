#!/usr/bin/env bash
# Installs what is needed, builds kivbf and runs the whole test suite: a
# normal build, a saturating-output build, one under AddressSanitizer +
# UndefinedBehaviorSanitizer, then cross builds for aarch64 and armhf whose
# tests run under qemu-user, and the reliability checks (ThreadSanitizer,
# exported symbols, a bounded fuzz run). Every suite runs even when an earlier one failed;
# any failing test or sanitizer report fails the command.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

scripts/setup.sh --cross

failed=()
summary=()
run_suite() {
  local name=$1; shift
  local suite_start=$SECONDS status=passed
  echo "=== $name: build"
  if scripts/build.sh "$name" "$@"; then
    echo "=== $name: test"
    ctest --test-dir "build/$name" --output-on-failure -j "$(nproc 2>/dev/null || echo 2)" ||
      status=failed
  else
    status="failed to build"
  fi
  [[ $status == passed ]] || failed+=("$name")
  summary+=("$(printf '%-11s %-16s %5d s' "$name" "$status" $((SECONDS - suite_start)))")
  echo "=== $name: $status in $((SECONDS - suite_start)) s"
}

start=$SECONDS
run_suite native
run_suite saturating -DKIVBF_SATURATE_OUTPUT=ON -DKIVBF_BUILD_TOOLS=OFF
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite sanitizers -DKIVBF_SANITIZE=ON
run_suite aarch64 -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-aarch64-linux-gnu.cmake"
run_suite armhf -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-arm-linux-gnueabihf.cmake"

# ThreadSanitizer on the thread test, the shared library's exports, a bounded fuzz run.
reliability_start=$SECONDS
if scripts/run-reliability.sh; then status=passed; else status=failed; failed+=(reliability); fi
summary+=("$(printf '%-11s %-16s %5d s' reliability "$status" $((SECONDS - reliability_start)))")

echo "=== summary"
printf '    %s\n' "${summary[@]}"
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "=== FAILED: ${failed[*]} (after $((SECONDS - start)) s)"
  exit 1
fi
echo "=== all suites passed in $((SECONDS - start)) s"
