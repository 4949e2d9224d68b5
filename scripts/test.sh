#!/usr/bin/env bash
# The whole test suite: set up; check that no area includes another's private headers; build
# everything (core, tool, tests, benchmarks) once with warnings as errors and with AddressSanitizer
# and UndefinedBehaviorSanitizer on, and the core and tool once more with only portable POSIX calls;
# run every test (unit tests, the binaries through pipes, the official MCP client) under the
# sanitizers; last, a short fuzz run of every libFuzzer target (scripts/fuzz.sh).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc)"
"$root/scripts/setup.sh"

echo "== areas include only their own private headers"
"$root/scripts/check_includes.sh"

echo "== build (warnings are errors; AddressSanitizer + UndefinedBehaviorSanitizer)"
"$root/scripts/build.sh" "$root/build/test" -DCMAKE_BUILD_TYPE=Debug \
  -DKESTROVA_WERROR=ON -DKESTROVA_SANITIZE=ON
echo "== the portable build (the calls macOS and other POSIX systems have; no Linux-only ones)"
"$root/scripts/build.sh" "$root/build/portable" -DCMAKE_BUILD_TYPE=Debug -DKESTROVA_WERROR=ON \
  -DKESTROVA_PORTABLE_POSIX=ON -DKESTROVA_BUILD_TESTS=OFF -DKESTROVA_BUILD_BENCH=OFF
"$root/scripts/check_portable.sh" "$root/build/portable"

echo "== tests under the sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$root/build/test" --output-on-failure --parallel "$jobs"

echo "== fuzz smoke run (libFuzzer: replay the corpora, then 45 s per target)"
"$root/scripts/fuzz.sh"
