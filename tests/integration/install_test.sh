#!/usr/bin/env bash
# `cmake --install` of the build folder given as $1 into a fresh prefix: exactly the two programs
# and their manual pages land there, the installed programs run, and man renders both pages
# without a warning.
set -euo pipefail
build="$1"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
fail() {
  echo "FAIL: $1"
  exit 1
}

log="$(cmake --install "$build" --prefix "$tmp" 2>&1)" || fail "cmake --install: $log"

# Anything more (a static library of an area, a header, a test program) was installed by mistake.
expected="bin/kestrova
bin/kestrova-cli
share/man/man1/kestrova-cli.1
share/man/man1/kestrova.1"
found="$(cd "$tmp" && find . -mindepth 1 ! -type d | sed 's|^\./||' | LC_ALL=C sort)"
[ "$found" = "$expected" ] || fail "installed files:
$found"

for program in kestrova kestrova-cli; do
  [ -x "$tmp/bin/$program" ] || fail "bin/$program is not executable"
  "$tmp/bin/$program" --help >/dev/null || fail "installed $program --help exited with $?"
done

if ! command -v man >/dev/null 2>&1; then
  echo "man is not installed: the manual pages are not rendered."
  exit 0
fi
for page in kestrova kestrova-cli; do
  file="$tmp/share/man/man1/$page.1"
  warnings="$(MANWIDTH=80 man --warnings -l "$file" 2>&1 >/dev/null)"
  [ -z "$warnings" ] || fail "man warns about $page.1:
$warnings"
  text="$(MANWIDTH=80 man -l "$file" 2>/dev/null)"
  grep -Eq "^ +$page +- " <<<"$text" || fail "$page.1 renders no NAME line"
done
