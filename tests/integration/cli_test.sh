#!/usr/bin/env bash
# The real binary's `selftest` (with and without --no-ai) and `info` (with and without
# KESTROVA_NO_AI, with no library anywhere): exit status, output, and no files left or made.
set -u
cli="$1"
status=0
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
mkdir -p "$tmp/home" "$tmp/data"
fail() { echo "FAIL: $1"; status=1; }

for args in "selftest" "selftest --no-ai"; do
  # shellcheck disable=SC2086
  TMPDIR="$tmp" "$cli" $args >"$tmp/out.txt" 2>"$tmp/err.txt" || fail "'$args' exited with $?"
  [[ "$(tail -n 1 "$tmp/out.txt")" =~ ^[0-9]+\ passed,\ 0\ failed$ ]] || fail "'$args' printed: $(cat "$tmp/out.txt")"
  compgen -G "$tmp/kestrova-selftest-*" >/dev/null && fail "'$args' left its temporary folder"
done

# The model is not available here; KESTROVA_NO_AI counts when merely present, even empty.
for setting in "" "KESTROVA_NO_AI=" "KESTROVA_NO_AI=1"; do
  # shellcheck disable=SC2086
  env -u KESTROVA_NO_AI -u KESTROVA_NO_SEMANTIC HOME="$tmp/home" XDG_DATA_HOME="$tmp/data" \
    $setting "$cli" info >"$tmp/out.txt" 2>"$tmp/err.txt" || fail "info with '$setting' exited with $?"
  ai="Apple Intelligence: für diesen Lauf ausgeschaltet"
  [ -z "$setting" ] && ai="Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter."
  printf '%s\n' "$ai" "Embedder: none-0+bow256" "Bibliothek: $tmp/data/Kestrova/library.json" >"$tmp/expected.txt"
  cmp -s "$tmp/expected.txt" "$tmp/out.txt" || fail "info with '$setting' printed: $(cat "$tmp/out.txt")"
  [ -s "$tmp/err.txt" ] && fail "info wrote to standard error: $(cat "$tmp/err.txt")"
  [ -z "$(find "$tmp/home" "$tmp/data" -mindepth 1)" ] || fail "info created files"
done
# Without XDG_DATA_HOME the library lives under the home folder.
line3="$(env -u XDG_DATA_HOME HOME="$tmp/home" "$cli" info 2>&1 | sed -n 3p)"
[ "$line3" = "Bibliothek: $tmp/home/.local/share/Kestrova/library.json" ] || fail "without XDG_DATA_HOME: '$line3'"

# The help lists selftest, mcp and info in this order; a usage error gives 64 and the label.
order="$("$cli" --help 2>&1 | grep -oE '^ +(selftest|mcp|info)\b' | tr -d ' ' | tr '\n' ' ')"
[ "$order" = "selftest mcp info " ] || fail "help lists the subcommands as '$order'"
for args in "selftest --noAI" "info extra" "mcp --library" "mcp -l x"; do
  # shellcheck disable=SC2086
  "$cli" $args </dev/null >/dev/null 2>"$tmp/err.txt"
  rc=$?
  [ "$rc" -eq 64 ] && grep -q '^Error: ' "$tmp/err.txt" || fail "'$args' gave status $rc and: $(cat "$tmp/err.txt")"
done
exit $status
