#!/usr/bin/env bash
# Builds the benchmarks with the release flags of the library (RelWithDebInfo:
# -O2 -g, the same -ffp-contract=off) and runs them.
#   scripts/run-bench.sh [--build-only] [benchmark options...]
# Default options: 9 repetitions interleaved at random, medians in the summary. The build directory
# is $KIVBF_BENCH_BUILD or build-bench. Instruction counts: bench/callgrind.sh (x86-64),
# bench/qemu_count.sh (AArch64); everything with one summary of the targets:
# scripts/bench-targets.sh.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${KIVBF_BENCH_BUILD:-$top/build-bench}
build_only=0
if [[ ${1:-} == --build-only ]]; then build_only=1; shift; fi

cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIVBF_BUILD_BENCH=ON > /dev/null
cmake --build "$build" --target bench_kivbf count_kivbf -j 2
[[ $build_only == 1 ]] && exit 0

# Silence the library's information messages during the run.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo '{"debug_level": 1}' > "$work/msglevel.json"
export DML_PATH=$work/msglevel.json

if [[ $# -eq 0 ]]; then
    # Repetitions interleaved at random, so that a slow spell of a shared
    # machine spreads over every case instead of landing on a few.
    set -- --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
        --benchmark_display_aggregates_only=true --benchmark_min_time=0.1
fi
"$build/bench/bench_kivbf" "$@"
