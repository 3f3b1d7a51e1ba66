#!/usr/bin/env bash
# Sourced by tests APPLIANCE STAGE of an appliance that loses its power. They end with "exit
# $failures".
# shellcheck disable=SC2034 # it is used there
STATE=$(mktemp -d) failures=0
trap 'rm -rf "$STATE"' EXIT
APPLIANCE=("$1" --stage "$2" --state "$STATE")

# inside SCRIPT: runs in the appliance; "fail WORDS" and "comes_true COMMAND…" are there.
inside() {
  # shellcheck disable=SC2016 # it runs inside
  "${APPLIANCE[@]}" -- bash -c '
    [[ -r /dev/net/tun ]] || exit 0
    failed=0
    fail() { echo "FAILED: $*" >&2; failed=1; }
    comes_true() {
      local end=$((SECONDS + 60))
      until "$@" >/dev/null 2>&1; do ((SECONDS < end)) || return; sleep 0.1; done
    }
    '"$1"'
    exit $failed' || failures=1
}
