#!/usr/bin/env bash
# The library's results must not depend on the CPU it runs on. Fails when
#  - it calls a libm function other than the IEEE-exact sqrt and sqrtf
#    (glibc picks CPU-specific exp/sin/log variants at run time), or
#  - its x86 code holds a reciprocal or reciprocal-square-root estimate
#    instruction (their results differ between x86 CPU generations).
# usage: check_library_symbols.sh NM OBJDUMP LIBRARY LIBM PROCESSOR
set -euo pipefail
nm=$1 objdump=$2 library=$3 libm=$4 processor=$5

libm_calls=$(comm -12 \
  <("$nm" -u "$library" | awk 'NF >= 2 {print $2}' | sed 's/@.*//' | sort -u) \
  <("$nm" -D --defined-only "$libm" | awk '{print $3}' | sed 's/@.*//' | sort -u) |
  grep -vxE 'sqrtf?' || true)
status=0
if [[ -n $libm_calls ]]; then
  echo "library calls libm: $libm_calls"
  status=1
fi
if [[ $processor =~ ^(x86_64|AMD64|i.86)$ ]]; then
  estimates=$("$objdump" -d "$library" | grep -cE '\s(v?rcp(ps|ss)|v?rsqrt(ps|ss)|vrcp14|vrsqrt14|vrcp28|vrsqrt28)' || true)
  if [[ $estimates -ne 0 ]]; then
    echo "library holds $estimates estimate instructions"
    status=1
  fi
fi
[[ $status -eq 0 ]] && echo "no libm call but sqrt/sqrtf, no estimate instruction"
exit $status
