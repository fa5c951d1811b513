#!/usr/bin/env bash
# Instructions per block (and per set-up call) under callgrind; unlike
# wall-clock figures they do not move with the load on the machine.
#   bench/callgrind.sh [build-dir]      (default: build-bench, built by scripts/run-bench.sh)
# Prints one line per case; KIVBF_CALLGRIND_STAGES=1 adds the inclusive count
# per stage function for mode 3 noise blocks and mode 0 noise blocks.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build-bench}
counter=$build/bench/count_kivbf
[[ -x $counter ]] || { echo "missing $counter: run scripts/run-bench.sh --build-only" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo '{"debug_level": 0}' > "$work/msglevel.json"
export DML_PATH=$work/msglevel.json
blocks=100

# Instructions collected in one run of count_kivbf with the given arguments.
collected() {
    valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$work/out" \
        "$counter" "$@" > /dev/null 2> "$work/log"
    awk '/^summary:|^totals:/ { print $2; exit }' "$work/out"
}

per_unit() {  # label count args...
    local label=$1 count=$2; shift 2
    local total
    total=$(collected "$@")
    printf '%-28s %12d\n' "$label" $(( total / count ))
}

printf '%-28s %12s\n' case 'Ir per block'
per_unit fft_floor $blocks fft $blocks
for mode in 0 1 2 3 4; do
    for gate in level vad; do
        for stream in mixed noise speech; do
            per_unit "run/mode$mode/$gate/$stream" $blocks run $mode $gate $stream $blocks
        done
    done
done
per_unit setmode/mode1 10 setmode 1 10
per_unit setmode/mode3 10 setmode 3 10
per_unit init 10 init 10

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
