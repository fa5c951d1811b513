#!/usr/bin/env bash
# Reliability checks beyond the unit-test suites: the thread test under
# ThreadSanitizer, the shared library's exported symbols, and a bounded
# fuzz run (KIVBF_FUZZ_SECONDS, default 60). Every check runs; any failure
# fails the command.
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
failed=()

echo "=== threads under ThreadSanitizer"
if cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIVBF_BUILD_TOOLS=OFF \
     -DCMAKE_CXX_FLAGS="-fsanitize=thread" -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" \
     >/dev/null && cmake --build build/tsan --target test_threads -j 2 >/dev/null &&
   TSAN_OPTIONS=halt_on_error=1 build/tsan/tests/test_threads >build/tsan/threads.log 2>&1; then
  echo "threads: OK"
else
  tail -40 build/tsan/threads.log 2>/dev/null; failed+=(tsan)
fi

echo "=== exported symbols"
# Only the API and the platform calls an integrator may replace.
if cmake -S . -B build/shared -DBUILD_SHARED_LIBS=ON -DKIVBF_BUILD_TESTS=OFF \
     -DKIVBF_BUILD_TOOLS=OFF >/dev/null && cmake --build build/shared --target kivbf -j 2 >/dev/null; then
  extra=$(nm -D --defined-only build/shared/libkivbf.so | awk '{print $3}' |
          grep -Ev '^(KivBf_[A-Za-z]+|KivBfExt_[A-Za-z]+|Pel(Fs|OsMem)[A-Za-z]+)$' || true)
  count=$(nm -D --defined-only build/shared/libkivbf.so | grep -c ' T KivBf_')
  ext=$(nm -D --defined-only build/shared/libkivbf.so | grep -c ' T KivBfExt_')
  weak=$(nm -D --defined-only build/shared/libkivbf.so | grep -c ' W Pel')
  if [[ -z $extra && $count -eq 17 && $ext -eq 7 && $weak -eq 6 ]]; then
    echo "exports: OK ($count KivBf_ calls, $ext KivBfExt_ calls, $weak weak platform calls)"
  else
    echo "unexpected exports ($count KivBf_, $ext KivBfExt_, $weak weak Pel*): $extra"; failed+=(exports)
  fi
else
  failed+=(exports)
fi

echo "=== fuzzing"
scripts/run-fuzz.sh "${KIVBF_FUZZ_SECONDS:-60}" || failed+=(fuzz)

if [[ ${#failed[@]} -gt 0 ]]; then echo "=== reliability FAILED: ${failed[*]}"; exit 1; fi
echo "=== reliability checks passed"
