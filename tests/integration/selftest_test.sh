#!/usr/bin/env bash
# Runs the real binary's selftest (with and without --no-ai) and checks its exit status, its last
# line and that it leaves no temporary folder behind.
set -u
cli="$1"
status=0
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
for args in "selftest" "selftest --no-ai"; do
  # shellcheck disable=SC2086
  TMPDIR="$tmp" "$cli" $args >"$tmp/out.txt" 2>"$tmp/err.txt"
  rc=$?
  last="$(tail -n 1 "$tmp/out.txt")"
  if [ "$rc" -ne 0 ]; then
    echo "FAIL: '$args' exited with $rc"; cat "$tmp/out.txt" "$tmp/err.txt"; status=1
  fi
  if ! [[ "$last" =~ ^[0-9]+\ passed,\ 0\ failed$ ]]; then
    echo "FAIL: '$args' last line is '$last'"; status=1
  fi
  if compgen -G "$tmp/kestrova-selftest-*" >/dev/null; then
    echo "FAIL: '$args' left its temporary folder behind"; status=1
  fi
done
# A usage error: exit status 64 and the label on standard error.
"$cli" selftest --noAI >/dev/null 2>"$tmp/err.txt"
rc=$?
if [ "$rc" -ne 64 ] || ! grep -q '^Error: ' "$tmp/err.txt"; then
  echo "FAIL: --noAI gave status $rc and: $(cat "$tmp/err.txt")"; status=1
fi
exit $status
