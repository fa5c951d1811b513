#!/usr/bin/env bash
# Builds and runs every performance measurement and prints one summary with
# each performance target met or not:
#   - wall clock: scripts/run-bench.sh (Google Benchmark, medians of
#     interleaved repetitions; reported beside the counts),
#   - x86-64 instructions: bench/callgrind.sh (binding),
#   - AArch64 instructions: bench/qemu_count.sh (count_kivbf cross-built,
#     run under qemu-aarch64 with the project's counting plugin; binding).
#   scripts/bench-targets.sh [--counts-only]
# Build directories: $KIVBF_BENCH_BUILD or build-bench (native) and
# $KIVBF_BENCH_BUILD_AARCH64 or build-bench-aarch64. Takes about 4.5
# minutes on the 2-core development machine once both are built (2.5 with
# --counts-only, which skips the timing run); building them adds about 10.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
native=${KIVBF_BENCH_BUILD:-$top/build-bench}
aarch64=${KIVBF_BENCH_BUILD_AARCH64:-$top/build-bench-aarch64}
timing=1
[[ ${1:-} == --counts-only ]] && timing=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

KIVBF_BENCH_BUILD=$native "$top/scripts/run-bench.sh" --build-only > /dev/null
cmake -S "$top" -B "$aarch64" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIVBF_BUILD_BENCH=ON \
    -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-aarch64-linux-gnu.cmake" > /dev/null
cmake --build "$aarch64" --target count_kivbf -j 2 > /dev/null

if [[ $timing == 1 ]]; then
    echo "== wall clock (scripts/run-bench.sh)"
    KIVBF_BENCH_BUILD=$native "$top/scripts/run-bench.sh" | tee "$work/timing" | sed -n '/^Summary/,$p'
fi
echo "== x86-64 instructions (bench/callgrind.sh)"
"$top/bench/callgrind.sh" "$native" | tee "$work/x86"
echo "== AArch64 instructions (bench/qemu_count.sh)"
"$top/bench/qemu_count.sh" "$aarch64" | tee "$work/a64"
echo '{"debug_level": 1}' > "$work/msglevel.json"
DML_PATH=$work/msglevel.json "$native/bench/count_kivbf" buffer | tail -1 > "$work/buffer"

# Worst case of a column over the rows whose case matches a pattern.
# worst FILE PATTERN COLUMN max|min
worst() {
    awk -v pattern="$2" -v column="$3" -v want="$4" '
        $1 ~ pattern && NF >= column {
            v = $column + 0
            if (!seen || (want == "max" && v > w) || (want == "min" && v < w)) w = v
            seen = 1 }
        END { if (seen) printf "%.2f", w; else printf "-" }' "$1"
}
# Wall clock: the timing summary has columns name, ns, x floor, us per s, peer / ours.
wall() { [[ -s $work/timing ]] && sed -n '/^Summary/,/^working buffer/p' "$work/timing" | worst /dev/stdin "$@" || echo "-"; }

printf '\n%-52s %9s %11s  %s\n' "Target (binding: instructions)" measured "wall clock" verdict
verdict() {  # label value wall-clock-value limit le|ge
    awk -v l="$1" -v v="$2" -v t="$3" -v lim="$4" -v dir="$5" 'BEGIN {
        met = (v != "-") && ((dir == "le" && v + 0 <= lim) || (dir == "ge" && v + 0 >= lim))
        printf "%-52s %9s %11s  %s\n", l, v, t, met ? "met" : "NOT met" }'
}
verdict "x86-64: own FFT (3 transforms) <= 1/3 x KissFFT floor" "$(worst "$work/x86" '^fft_own$' 3 max)" \
    "$(wall '^fft_own$' 3 max)" 0.3334 le
verdict "x86-64: mode 1 <= 0.55 x floor" "$(worst "$work/x86" '^run/mode1/' 3 max)" \
    "$(wall '^run/mode1/' 3 max)" 0.55 le
verdict "x86-64: mode 3 noise blocks <= 1.5 x floor" "$(worst "$work/x86" '^run/mode3/.*/noise$' 3 max)" \
    "$(wall '^run/mode3/.*/noise$' 3 max)" 1.5 le
verdict "x86-64: peer / ours per second >= 5 in mode 1" "$(worst "$work/x86" '^run/mode1/' 5 min)" \
    "$(wall '^run/mode1/' 5 min)" 5 ge
verdict "x86-64: peer / ours per second >= 2, modes 0-3" "$(worst "$work/x86" '^run/mode[0-3]/' 5 min)" \
    "$(wall '^run/mode[0-3]/' 5 min)" 2 ge
verdict "x86-64: enhanced mode <= 2.5 x floor" "$(worst "$work/x86" '^run/enhanced/' 3 max)" "-" 2.5 le
verdict "x86-64: direction finder <= 0.25 x floor" "$(worst "$work/x86" '^locate$' 3 max)" "-" 0.25 le
verdict "working buffer <= 64 KiB (KiB)" "$(awk '{ printf "%.2f", $1 / 1024 }' "$work/buffer")" "-" 64 le
verdict "AArch64: own FFT <= 1/3 x KissFFT floor" "$(worst "$work/a64" '^fft_own$' 3 max)" "-" 0.3334 le
verdict "AArch64: mode 1 <= 0.6 x floor" "$(worst "$work/a64" '^run/mode1/' 3 max)" "-" 0.6 le
verdict "AArch64: enhanced mode <= 2.5 x floor" "$(worst "$work/a64" '^run/enhanced/' 3 max)" "-" 2.5 le
verdict "AArch64: direction finder <= 0.25 x floor" "$(worst "$work/a64" '^locate$' 3 max)" "-" 0.25 le
