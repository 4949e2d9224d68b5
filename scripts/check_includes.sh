#!/usr/bin/env bash
# Fails when a file of one area includes a private header of another area. Each area of src/ keeps
# its private headers in its own folder; only include/kestrova/ is shared. The unit tests of an
# area (tests/<area>/) may use that area's private headers, the shared fixtures of tests/ and the
# generators of bench/.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
status=0
while IFS= read -r file; do
  top="${file%%/*}"                # src or tests
  rest="${file#*/}"
  area="${rest%%/*}"
  case "$area" in integration | support | fixtures | golden) continue ;; esac
  dir="$(dirname "$file")"
  while IFS= read -r header; do
    allowed=("$dir/$header")
    if [ "$top" = tests ]; then
      allowed+=("src/$area/$header" "tests/$header" "bench/$header")
    fi
    found=""
    for candidate in "${allowed[@]}"; do
      if [ -f "$candidate" ]; then
        case "$(realpath --relative-to=. "$candidate")" in
          "src/$area/"* | "tests/$area/"* | tests/support/* | bench/*) found=yes ;;
        esac
      fi
    done
    if [ -z "$found" ]; then
      owner="$(cd src && ls -d */"$header" 2>/dev/null | head -n 1 || true)"
      echo "$file: includes \"$header\"${owner:+, a private header of src/${owner%%/*}}" >&2
      status=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find src tests -type f \( -name '*.cc' -o -name '*.h' \) -not -path '*/node_modules/*' | sort)
if [ "$status" -eq 0 ]; then
  echo "includes: every area uses only its own private headers"
fi
exit "$status"
