#!/usr/bin/env bash
# appliance_place_test.sh TREE BUILD: an appliance of a tree below /root and below /home shows
# nothing else of them.
set -euo pipefail
TREE=$1 BUILD=$2
export TREE BUILD
unshare=(unshare --mount)
((EUID == 0)) || unshare+=(--user --map-root-user)
# Seen in this mount namespace alone; a home that holds the build folder is still needed.
# shellcheck disable=SC2016 # it runs inside
exec "${unshare[@]}" bash -euc '
  for home in /root /home; do
    case $TREE/$BUILD/ in $home/* | */$home/*) echo "$home holds this tree itself"; continue ;; esac
    mount -t tmpfs place "$home"
    touch "$home/secret"
    mkdir -p "$home/user/ormel"
    mount --bind "$TREE" "$home/user/ormel"
    "$home/user/ormel/script/appliance" --stage "$BUILD/stage" --no-daemons \
      --bind "$home/user/ormel" --bind "$BUILD" -- \
      "$BUILD/tests/system/ormel_system_tests" \
      --gtest_filter=Appliance.ShowsNothingOfTheHostsLogsAndHomes
  done'
