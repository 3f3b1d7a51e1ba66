#!/usr/bin/env bash
# Process 1 of the root that packages are tested in: puts it together, and has autopkgtest run in
# it. What it ends with is the test's own exit status.
#   package-root.sh systemd LOG DEBIAN PACKAGES FORMER   a unit of systemd, which goes on as process 1
#   package-root.sh plain LOG DEBIAN PACKAGES FORMER     without
#   package-root.sh probe                                a unit that is as shut in as ours, to see if it starts
set -euo pipefail
HERE=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
# shellcheck source=script/lib/common.sh
. "$HERE/common.sh"

DEVICES=(null zero full random urandom tty net/tun ppp) # where the host has them

# Where it is put together: the mounts made there are seen here alone, and hide no file that is
# needed.
choose_workbench() {
  for WORKBENCH in /mnt /media /srv /home; do
    [[ ! -d $WORKBENCH || $TREE/ == "$WORKBENCH"/* ]] || return 0
  done
  die 'found no folder to mount the new root on: tried /mnt, /media, /srv and /home'
}

# What the test needs of the host's files, before its root has gone.
take_given() {
  mkdir -p "$WORKBENCH"/given/{source,packages}
  cp -r -- "$2" "$WORKBENCH/given/source/debian"
  cp -- "$3"/*.deb "$WORKBENCH/given/packages"
  ! compgen -G "$4/*.deb" >/dev/null ||
    { mkdir "$WORKBENCH/given/former" && cp -- "$4"/*.deb "$WORKBENCH/given/former"; }
  : >"$WORKBENCH/given/log"
}

make_root() {
  local device outside options=lowerdir=/,upperdir=$WORKBENCH/upper,workdir=$WORKBENCH/work
  read -r _ outside _ </proc/self/uid_map
  ((outside == 0)) || options+=,userxattr # a root of its container alone
  mount -t overlay -o "$options" package-root "$WORKBENCH/root"
  cd "$WORKBENCH/root"
  mount -t proc -o nosuid,nodev,noexec proc proc
  mount -t sysfs -o ro,nosuid,nodev,noexec sysfs sys
  if [[ $MODE != plain ]]; then
    mount -t tmpfs -o mode=0755 cgroup sys/fs/cgroup
    mount -t cgroup2 cgroup2 sys/fs/cgroup
  fi
  mount -t tmpfs -o mode=0755 dev dev
  mkdir dev/{net,pts,shm}
  for device in "${DEVICES[@]}"; do
    [[ -e /dev/$device ]] || continue
    : >"dev/$device"
    mount --bind "/dev/$device" "dev/$device"
  done
  mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts dev/pts
  ln -s pts/ptmx dev/ptmx
  cp -P /dev/fd /dev/stdin /dev/stdout /dev/stderr dev
  mount -t tmpfs -o mode=1777 tmp tmp
  mount -t tmpfs -o mode=0755 run run
  mkdir run/lock
}

# This host's own services stay out of it, and what keeps packages from starting theirs.
prepare_host() {
  rm -rf etc/config etc/fenro usr/sbin/policy-rc.d etc/apt/sources.list.d/*
  : >etc/apt/sources.list # there is no network: what is not installed cannot be fetched
  : >etc/machine-id
  echo package-test >etc/hostname
}

# The root is for this test alone, which is what autopkgtest's own kinds of test beds cannot be
# inside of a container.
write_run() {
  local options=(--ignore-restrictions='breaks-testbed,isolation-container' --timeout-test=720)
  [[ ! -d run/given/former ]] || options+=(--env=FORMER=/run/given/former)
  {
    printf '#!/bin/sh\nexec autopkgtest'
    printf " '%s'" "${options[@]}" --no-built-binaries
    printf ' /run/given/packages/*.deb /run/given/source/ -- null\n'
  } >run/given/run
  chmod 0755 run/given/run
}

write_unit() {
  mkdir -p run/systemd/system
  {
    cat <<'UNIT'
[Unit]
After=basic.target dbus.service
Wants=basic.target dbus.socket
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
Environment=PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
Environment=HOME=/root LANG=C.UTF-8
UNIT
    if [[ $MODE == probe ]]; then
      cat <<'UNIT'
ExecStart=/bin/true
NoNewPrivileges=yes
CapabilityBoundingSet=
PrivateDevices=yes
PrivateTmp=yes
PrivateUsers=yes
ProcSubset=pid
ProtectControlGroups=yes
ProtectHostname=yes
ProtectKernelTunables=yes
ProtectProc=invisible
ProtectSystem=strict
RestrictAddressFamilies=AF_UNIX
RestrictNamespaces=yes
SystemCallFilter=@system-service
StateDirectory=package-test
UNIT
    else
      cat <<'UNIT'
ExecStart=/run/given/run
TimeoutStartSec=14min
StandardOutput=append:/run/given/log
StandardError=inherit
UNIT
    fi
  } >run/systemd/system/package-test.service
}

MODE=$1
shift
choose_workbench
mount -t tmpfs -o mode=0755 package-layers "$WORKBENCH"
mkdir "$WORKBENCH"/{upper,work,root}
[[ $MODE == probe ]] || take_given "$@"
make_root
prepare_host
if [[ $MODE != probe ]]; then
  cp -r "$WORKBENCH/given" run
  mount --bind "$1" run/given/log
  write_run
fi
[[ $MODE == plain ]] || write_unit
ip link set lo up
hostname package-test
pivot_root . .
umount -l .
cd /
[[ $MODE != plain ]] || { /run/given/run >>/run/given/log 2>&1 </dev/null; exit; }
exec env -i container=package-test /lib/systemd/systemd --unit=package-test.service --show-status=no
