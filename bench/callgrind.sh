#!/usr/bin/env bash
# Instructions per block (and per set-up call) under callgrind; unlike
# wall-clock figures they do not move with the load on the machine.
#   bench/callgrind.sh [build-dir]      (default: build-bench, built by scripts/run-bench.sh)
# Prints one line per case (Ir per block or call, the ratio to the FFT floor
# of KissFFT called directly,
# millions of instructions per second of 16 kHz audio and the peer's over
# ours); KIVBF_CALLGRIND_STAGES=1 adds the inclusive count
# per stage function for mode 3 noise blocks and mode 0 noise blocks.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build-bench}
counter=$build/bench/count_kivbf
[[ -x $counter ]] || { echo "missing $counter: run scripts/run-bench.sh --build-only" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo '{"debug_level": 1}' > "$work/msglevel.json"
export DML_PATH=$work/msglevel.json
blocks=100

# Instructions collected in one run of count_kivbf with the given arguments.
collected() {
    valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$work/out" \
        "$counter" "$@" > /dev/null 2> "$work/log"
    awk '/^summary:|^totals:/ { print $2; exit }' "$work/out"
}

per_unit() {  # count args...: instructions per block or call
    local count=$1; shift
    echo $(( $(collected "$@") / count ))
}

# Ratios: to the FFT floor, and the peer's instructions per second of audio
# (100 frames of 10 ms) over ours (125 blocks of 128 samples at 16 kHz).
floor=$(per_unit $blocks fft $blocks)
peer=$(per_unit $blocks peer $blocks)
row() {  # label Ir [per-second]
    awk -v l="$1" -v ir="$2" -v f="$floor" -v p="$peer" -v block="${3:-0}" 'BEGIN {
        printf "%-24s %10d %8.2f", l, ir, ir / f
        if (block == 1) printf " %10.1f %8.2f", ir * 125 / 1e6, p * 100 / (ir * 125)
        printf "\n" }'
}
printf '%-24s %10s %8s %10s %8s\n' case 'Ir' 'x floor' 'MIr/s' 'peer/us'
row fft_floor "$floor"
row fft_own "$(per_unit $blocks fft_own $blocks)"
row peer_per_10ms "$peer"
for mode in 0 1 2 3 4; do
    for gate in level vad; do
        for stream in mixed noise speech; do
            row "run/mode$mode/$gate/$stream" "$(per_unit $blocks run $mode $gate $stream $blocks)" 1
        done
    done
done
for stream in mixed noise speech; do
    row "run/enhanced/$stream" "$(per_unit $blocks enhanced $stream $blocks)" 1
done
row setmode/mode1 "$(per_unit 10 setmode 1 10)"
row setmode/mode3 "$(per_unit 10 setmode 3 10)"
row init "$(per_unit 10 init 10)"
row locate "$(per_unit $blocks locate $blocks)"

if [[ ${KIVBF_CALLGRIND_STAGES:-0} == 1 ]]; then
    for mode in 3 0; do
        echo
        echo "mode $mode, level gate, noise blocks: inclusive Ir per block"
        collected run $mode level noise $blocks > /dev/null
        callgrind_annotate --inclusive=yes --threshold=100 "$work/out" 2> /dev/null |
            awk -v n=$blocks 'match($0, /:(Bf_[A-Za-z]+|KivVad_Run|FFT_Rdft|KivBf_Run)[( ]/) {
                name = substr($0, RSTART + 1, RLENGTH - 2); count = $1; gsub(",", "", count);
                if (!(name in seen)) { seen[name] = 1; printf "  %-28s %10d\n", name, count / n } }'
    done
fi
