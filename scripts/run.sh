#!/usr/bin/env bash
# The main job: set up, build and run the self-test on the built-in demo data.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release \
  -DKESTROVA_BUILD_TESTS=OFF -DKESTROVA_BUILD_BENCH=OFF
"$root/build/release/src/cli/kestrova-cli" selftest
