#!/usr/bin/env bash
# server_test.sh TREE: script/server and script/test refuse, in one line each, what cannot work,
# before they install or build anything.
set -uo pipefail
SERVER=$1/script/server failures=0
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

# refused WORDS OPTION...: fails, and says one line with these words.
refused() {
  local words=$1 said status
  shift
  said=$("$SERVER" "$@" 2>&1 </dev/null)
  status=$?
  [[ $status != 0 && $said == *"$words"* && $said != *$'\n'* ]] && return
  printf 'FAILED: %s\n  status %s: %s\n' "$*" "$status" "$said"
  failures=$((failures + 1))
}

refused 'no port number' --port 0
refused 'no port number' --port x
refused 'above 65535' --port 99999
refused 'above 65535' --port 65535 --pair
refused 'lacks its number' --port
refused 'lacks its folder' --state
refused 'says nothing to a command' --pair -- true
(exec {lock}>>"$1/build/server.lock" && flock "$lock" &&
  refused 'running already' --port 65533; exit "$failures")
failures=$((failures + $?))
# A kernel that refuses namespaces, in words of its own that mislead.
printf '#!/bin/sh\necho "unshare failed: No space left on device" >&2\nexit 1\n' >"$WORK/unshare"
chmod +x "$WORK/unshare"
PATH=$WORK:$PATH refused 'namespaces' --port 65533
PATH=$WORK:$PATH refused 'namespaces' --state "$WORK" -- true
SERVER=$1/script/test PATH=$WORK:$PATH refused 'namespaces'
for script in "$1"/script/*; do
  [[ -d $script ]] || (cd / && timeout 60 "$script" --help >/dev/null) ||
    { echo "FAILED: $script --help"; failures=$((failures + 1)); }
done
exit "$((failures > 0))"
