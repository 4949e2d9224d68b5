#!/usr/bin/env bash
# Installs everything the build, the tests and the benchmarks need on Debian 12. Idempotent:
# packages already present are not fetched again. Runs as root or through sudo.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libicu-dev libcurl4-openssl-dev zlib1g-dev liblz4-dev
  libsimdjson-dev nlohmann-json3-dev libcli11-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  nodejs npm
  clang-14 libclang-rt-14-dev
  python3 curl man-db
  chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
# Node.js may come from elsewhere than Debian; a working node and npm are what count.
if command -v node >/dev/null 2>&1 && command -v npm >/dev/null 2>&1; then
  filtered=()
  for p in "${missing[@]}"; do
    [[ "$p" == nodejs || "$p" == npm ]] || filtered+=("$p")
  done
  missing=("${filtered[@]+"${filtered[@]}"}")
fi

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi
  echo "setup: installing ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ -f "$root/tests/integration/package-lock.json" ]; then
  (cd "$root/tests/integration" && npm ci --no-audit --no-fund --loglevel=error)
fi
