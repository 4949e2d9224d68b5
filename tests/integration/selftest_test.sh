#!/usr/bin/env bash
# Runs the real binary's selftest (with and without --no-ai) and checks its exit status, its last
# line and that it leaves no temporary folder behind.
set -u
cli="$1"
status=0
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
fail() {
  echo "FAIL: $1"
  status=1
}
for args in "selftest" "selftest --no-ai"; do
  # shellcheck disable=SC2086
  TMPDIR="$tmp" "$cli" $args >"$tmp/out.txt" 2>"$tmp/err.txt"
  rc=$?
  last="$(tail -n 1 "$tmp/out.txt")"
  [ "$rc" -eq 0 ] || fail "'$args' exited with $rc: $(cat "$tmp/out.txt" "$tmp/err.txt")"
  [[ "$last" =~ ^[0-9]+\ passed,\ 0\ failed$ ]] || fail "'$args' last line is '$last'"
  compgen -G "$tmp/kestrova-selftest-*" >/dev/null && fail "'$args' left its temporary folder"
done
# A usage error: exit status 64 and the label on standard error.
"$cli" selftest --noAI >/dev/null 2>"$tmp/err.txt"
rc=$?
[ "$rc" -eq 64 ] && grep -q '^Error: ' "$tmp/err.txt" ||
  fail "--noAI gave status $rc and: $(cat "$tmp/err.txt")"
exit $status
