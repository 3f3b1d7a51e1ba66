#!/usr/bin/env bash
# interrupt_test.sh TREE: Ctrl-C on a terminal ends script/server and script/test in each phase,
# with one line and with all that they have started; a full disk is one line as well. Over stand-ins
# for the tools that take long.
set -uo pipefail
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
MARK=31${$}.7 # a time to sleep that no other process on this machine has
failures=0
cp -r "$1/script" "$WORK"
mkdir -p "$WORK"/{bin,web,stage/usr}
touch "$WORK/web/package-lock.json"
export PATH=$WORK/bin:$PATH WORK MARK HANGS

# stand_in NAME COMMAND: ends with success, but runs COMMAND if it is the one that hangs.
stand_in() {
  # shellcheck disable=SC2016 # it runs later
  printf '#!/bin/bash\n[[ $HANGS == %s ]] || exit 0\n%s\n' "$1" "$2" >"$WORK/bin/$1"
  chmod +x "$WORK/bin/$1"
}
# shellcheck disable=SC2016 # they are run later
{
  stand_in cmake 'touch "$WORK/reached"; sleep "$MARK" & sleep "$MARK"'
  stand_in ctest 'touch "$WORK/reached"; sleep "$MARK" & sleep "$MARK"'
  # it tidies up for long
  stand_in npm 'trap "" INT TERM; touch "$WORK/reached"; while :; do sleep "$MARK"; done'
  stand_in node ''
  stand_in fills 'head -c 1M /dev/zero >"$WORK/build/filled"; exit 1'
}
printf '#!/bin/sh\n' >"$WORK/script/bootstrap"

fail() {
  printf 'FAILED: %s\n' "$1"
  sed 's/^/  /' "$WORK/said"
  failures=$((failures + 1))
}

# interrupted SCRIPT TOOL: Ctrl-C while the tool runs.
interrupted() {
  local status=0 terminal
  HANGS=$2
  rm -f "$WORK/reached" "$WORK/keys"
  mkfifo "$WORK/keys"
  # A background command would ignore Ctrl-C, and so would all below it.
  env --default-signal=INT script --quiet --flush --return --command "$WORK/script/$1" \
    "$WORK/said" \
    <"$WORK/keys" >/dev/null &
  terminal=$!
  exec {keys}>"$WORK/keys"
  until [[ -e $WORK/reached ]]; do
    kill -0 "$terminal" 2>/dev/null || break
    sleep 0.02
  done
  printf '\003' >&"$keys"
  wait "$terminal" || status=$?
  exec {keys}>&-
  ((status == 130)) || fail "$1 interrupted in $2: status $status"
  [[ $(grep -c 'Interrupted. What is built stays' "$WORK/said") == 1 ]] ||
    fail "$1 interrupted in $2: not one line"
  ! grep -qE 'line [0-9]+:|Terminated|Killed' "$WORK/said" ||
    fail "$1 interrupted in $2: the shell speaks"
  ! pgrep -f "^sleep $MARK" >/dev/null || fail "$1 interrupted in $2: something is left"
}

interrupted server cmake
interrupted server cmake # what the first leaves behind must not stop the second
interrupted server npm
interrupted test cmake
interrupted test ctest

# One line each where the disk is full: a build, and the state of an appliance.
unshare=(unshare --mount)
((EUID == 0)) || unshare+=(--user --map-root-user)
cp "$WORK/bin/fills" "$WORK/bin/cmake"
rm -rf "$WORK/build"
mkdir "$WORK"/{build,state}
for command in "$WORK/script/server" \
  "$WORK/script/appliance --stage $WORK/stage --state $WORK/state --no-daemons -- true"; do
  # shellcheck disable=SC2016 # it runs inside
  HANGS=fills "${unshare[@]}" bash -c \
    'for place in build state; do mount -t tmpfs -o size=64k full "$WORK/$place"; done
    exec $0' "$command" >"$WORK/said" 2>&1 </dev/null &&
      fail "${command%% *} on a full disk: success"
  [[ $(wc -l <"$WORK/said") == 1 && $(<"$WORK/said") == *'is full'* ]] ||
    fail "${command%% *} on a full disk"
done
exit "$((failures > 0))"
