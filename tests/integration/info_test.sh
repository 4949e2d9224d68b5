#!/usr/bin/env bash
# Runs the real binary's `info` command: three lines, with and without KESTROVA_NO_AI, with no
# library file anywhere, and without creating one.
set -u
cli="$1"
status=0
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
mkdir -p "$tmp/home" "$tmp/data"
fail() {
  echo "FAIL: $1"
  status=1
}

# The model is not available on this system; KESTROVA_NO_AI counts when merely present, also
# with an empty value.
for setting in "" "KESTROVA_NO_AI=" "KESTROVA_NO_AI=1"; do
  # shellcheck disable=SC2086
  env -u KESTROVA_NO_AI -u KESTROVA_NO_SEMANTIC HOME="$tmp/home" XDG_DATA_HOME="$tmp/data" \
    $setting "$cli" info >"$tmp/out.txt" 2>"$tmp/err.txt"
  rc=$?
  [ "$rc" -eq 0 ] || fail "info with '$setting' exited with $rc: $(cat "$tmp/err.txt")"
  ai="Apple Intelligence: für diesen Lauf ausgeschaltet"
  [ -z "$setting" ] && ai="Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter."
  printf '%s\n' "$ai" "Embedder: none-0+bow256" \
    "Bibliothek: $tmp/data/Kestrova/library.json" >"$tmp/expected.txt"
  cmp -s "$tmp/expected.txt" "$tmp/out.txt" ||
    fail "info with '$setting' printed: $(cat "$tmp/out.txt") --- expected: $(cat "$tmp/expected.txt")"
  [ -s "$tmp/err.txt" ] && fail "info wrote to standard error: $(cat "$tmp/err.txt")"
  if [ -n "$(find "$tmp/home" "$tmp/data" -mindepth 1 -print -quit)" ]; then
    fail "info created files: $(find "$tmp/home" "$tmp/data" -mindepth 1)"
  fi
done

# Without XDG_DATA_HOME the library lives under the home folder.
env -u KESTROVA_NO_AI -u XDG_DATA_HOME HOME="$tmp/home" "$cli" info >"$tmp/out.txt" 2>&1
line3="$(sed -n 3p "$tmp/out.txt")"
[ "$line3" = "Bibliothek: $tmp/home/.local/share/Kestrova/library.json" ] ||
  fail "library line without XDG_DATA_HOME is '$line3'"

# `info` is the third subcommand in the help, with its abstract.
"$cli" --help >"$tmp/help.txt" 2>&1
order="$(grep -oE '^ +(selftest|mcp|info)\b' "$tmp/help.txt" | tr -d ' ' | tr '\n' ' ')"
[ "$order" = "selftest mcp info " ] || fail "help lists the subcommands as '$order'"
grep -q 'Zeigt, welche KI-Stufen auf diesem Mac laufen.' "$tmp/help.txt" ||
  fail "help lacks the abstract of info"

# It takes no arguments.
"$cli" info extra >/dev/null 2>"$tmp/err.txt"
rc=$?
[ "$rc" -eq 64 ] && grep -q '^Error: ' "$tmp/err.txt" ||
  fail "info with an argument gave status $rc and: $(cat "$tmp/err.txt")"
exit $status
