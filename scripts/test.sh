#!/usr/bin/env bash
# The whole test suite: set up, build with warnings as errors, run every test; then build again
# with AddressSanitizer and UndefinedBehaviorSanitizer and run the tests once more; last, a short
# fuzz run of every libFuzzer target (scripts/fuzz.sh).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc)"
"$root/scripts/setup.sh"

echo "== build (warnings are errors)"
"$root/scripts/build.sh" "$root/build/test" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTROVA_WERROR=ON
echo "== tests"
ctest --test-dir "$root/build/test" --output-on-failure --parallel "$jobs"

echo "== build (AddressSanitizer + UndefinedBehaviorSanitizer)"
"$root/scripts/build.sh" "$root/build/asan" -DCMAKE_BUILD_TYPE=Debug -DKESTROVA_WERROR=ON \
  -DKESTROVA_SANITIZE=ON -DKESTROVA_BUILD_BENCH=OFF
echo "== tests under the sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$root/build/asan" --output-on-failure --parallel "$jobs"

echo "== fuzz smoke run (libFuzzer: replay the corpora, then 45 s per target)"
"$root/scripts/fuzz.sh"
