#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets of fuzz/ with clang-14 (AddressSanitizer and
# UndefinedBehaviorSanitizer on), replays every file of fuzz/corpus/<target>/ (the seeds and the
# inputs of past findings) and then fuzzes each target for SECONDS (default 45, or $FUZZ_SECONDS).
# New interesting inputs go to build/fuzz/corpus/<target>/ and findings to build/fuzz/artifacts/;
# the repository's corpora are only read. Targets run side by side, one per processor. Exits
# non-zero if any target found something.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-${FUZZ_SECONDS:-45}}"
build="$root/build/fuzz"
targets=(fuzz_mcp_handle fuzz_library_codec fuzz_text_tools fuzz_parse_iso fuzz_script_result)

echo "== build (libFuzzer, clang-14)"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 -DKESTROVA_FUZZ=ON \
  -DKESTROVA_WERROR=ON -DKESTROVA_BUILD_TESTS=OFF -DKESTROVA_BUILD_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --parallel "$(nproc)" --target fuzz_targets

mkdir -p "$build/artifacts"
rm -f "$build"/*.status
# One target per processor at a time; each writes its own log, read in order afterwards.
run() {
  local target="$1"
  local options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
                 -artifact_prefix="$build/artifacts/$target-")
  if [ -f "$root/fuzz/$target.dict" ]; then
    options+=(-dict="$root/fuzz/$target.dict")
  fi
  mkdir -p "$build/corpus/$target"
  local status=0
  "$build/fuzz/$target" "${options[@]}" "$build/corpus/$target" "$root/fuzz/corpus/$target" \
    >"$build/$target.log" 2>&1 || status=$?
  echo "$status" >"$build/$target.status"
}
echo "== replay fuzz/corpus/<target>, then fuzz each target for ${seconds}s ($(nproc) at a time)"
for target in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do
    wait -n || true
  done
  run "$target" &
done
wait

failed=()
for target in "${targets[@]}"; do
  log="$build/$target.log"
  if [ "$(cat "$build/$target.status" 2>/dev/null)" = 0 ]; then
    echo "$target: $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 || true)"
  else
    failed+=("$target")
    echo "$target: FINDING"
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$log" | head -n 8 || true
    echo "   (whole log: $log)"
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in ${failed[*]}"
  exit 1
fi
echo "fuzz: no findings"
