#!/usr/bin/env bash
# Builds the libFuzzer target with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) into build/fuzz, replays the saved regression
# inputs, then fuzzes the API for the given number of seconds (default 60).
# The corpus is kept in build/fuzz/corpus between runs; a crash is written
# to build/fuzz/crash-* and fails the command.
#   scripts/run-fuzz.sh [seconds]
# Longer runs: scripts/run-fuzz.sh 3600 (or several in parallel with
#   build/fuzz/fuzz/fuzz_api -jobs=N -workers=N build/fuzz/corpus fuzz/regressions).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
out="$top/build/fuzz"
cmake -S "$top" -B "$out" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DKIVBF_BUILD_FUZZ=ON -DKIVBF_BUILD_TESTS=OFF \
  -DKIVBF_BUILD_TOOLS=OFF >/dev/null
cmake --build "$out" --target fuzz_api -j 2 >/dev/null
mkdir -p "$out/corpus"
cd "$out"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
./fuzz/fuzz_api "$top"/fuzz/regressions/* >regressions.log 2>&1 ||
  { tail -40 regressions.log; echo "fuzz: a saved regression input fails"; exit 1; }
status=0
./fuzz/fuzz_api corpus -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 \
  >fuzz.log 2>&1 || status=$?
stat() { sed -n "s/^stat::$1: *//p" fuzz.log | tail -1; }
runs=$(stat number_of_executed_units)
if [[ $status -ne 0 ]]; then
  grep -E "ERROR|non-finite|SUMMARY|Test unit written" fuzz.log | head -20
  echo "fuzz: FAILED after ${runs:-?} runs (see $out/fuzz.log)"
  exit 1
fi
echo "fuzz: OK, ${runs} runs in ${seconds} s ($(stat average_exec_per_sec) exec/s)," \
  "corpus $(ls corpus | wc -l) inputs"
