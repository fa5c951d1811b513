#!/usr/bin/env bash
# AArch64 instructions per block (or call), counted under qemu-aarch64 by
# the project's TCG plugin (insn_count_plugin.c) between the same switches
# callgrind.sh uses, so both count the same work.
#   bench/qemu_count.sh [aarch64-build-dir]   (default: build-bench-aarch64, built by scripts/bench-targets.sh)
# Prints one line per case: instructions per block or call and the ratio to
# the FFT floor (KissFFT called directly, built for AArch64).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build-bench-aarch64}
counter=$build/bench/count_kivbf
[[ -x $counter ]] || { echo "missing $counter: run scripts/bench-targets.sh" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cc -shared -fPIC -O2 -Wall -Wextra -o "$work/plugin.so" "$top/bench/insn_count_plugin.c"
echo '{"debug_level": 1}' > "$work/msglevel.json"
export DML_PATH=$work/msglevel.json
blocks=100

per_unit() {  # count args...: measured instructions per block or call
    local count=$1; shift
    qemu-aarch64 -L /usr/aarch64-linux-gnu -plugin "$work/plugin.so" -d plugin -D "$work/log" \
        "$counter" "$@" > /dev/null
    awk -v n="$count" '/^insns:/ { printf "%d\n", $4 / n }' "$work/log"
}

floor=$(per_unit $blocks fft $blocks)
row() { awk -v l="$1" -v ir="$2" -v f="$floor" 'BEGIN { printf "%-24s %10d %8.2f\n", l, ir, ir / f }'; }
printf '%-24s %10s %8s\n' case 'insns' 'x floor'
row fft_floor "$floor"
row fft_own "$(per_unit $blocks fft_own $blocks)"
for mode in 0 1 2 3; do
    for gate in level vad; do
        for stream in mixed noise speech; do
            row "run/mode$mode/$gate/$stream" "$(per_unit $blocks run $mode $gate $stream $blocks)"
        done
    done
done
for stream in mixed noise speech; do
    row "run/enhanced/$stream" "$(per_unit $blocks enhanced $stream $blocks)"
done
row locate "$(per_unit $blocks locate $blocks)"
