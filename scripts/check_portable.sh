#!/usr/bin/env bash
# check_portable.sh BUILD_DIR: fails when the objects of a KESTROVA_PORTABLE_POSIX build reference
# a call or path that only Linux has, so that the branch other systems take stays free of them.
set -euo pipefail
dir="$1"
objects=$(find "$dir/src" -name '*.o')
[ -n "$objects" ] || { echo "check_portable: no objects under $dir/src" >&2; exit 1; }
status=0
# shellcheck disable=SC2086
symbols=$(nm -u --format=just-symbols $objects | sed 's/@.*//' | sort -u)
for call in pipe2 accept4 malloc_trim mallinfo mallinfo2 epoll_create1 inotify_init1; do
  if grep -qx "$call" <<<"$symbols"; then
    echo "check_portable: the portable build calls $call" >&2
    status=1
  fi
done
# Not "grep -q": with pipefail, strings killed by the early exit would hide the match.
# shellcheck disable=SC2086
if [ -n "$(strings $objects | grep '/proc/' || true)" ]; then
  echo "check_portable: the portable build reads /proc" >&2
  status=1
fi
[ "$status" -ne 0 ] || echo "portable: no Linux-only calls in $(wc -w <<<"$objects") objects"
exit "$status"
