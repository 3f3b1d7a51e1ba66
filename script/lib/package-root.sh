#!/usr/bin/env bash
# Process 1 of the root that packages are tested in: puts it together, has systemd started in it as process 1, and the
# test as a unit of that. package-root.sh TEST PACKAGES FORMER LOG. Ends with the test's own exit status.
set -euo pipefail
HERE=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
# shellcheck source=script/lib/common.sh
. "$HERE/common.sh"

WORKBENCH=/mnt
DEVICES=(null zero full random urandom tty net/tun ppp) # where the host has them

make_root() {
  local device
  mount -t tmpfs -o mode=0755 package-layers "$WORKBENCH"
  mkdir "$WORKBENCH"/{upper,work,root,given}
  cp -- "$1" "$WORKBENCH/given/life"
  mkdir "$WORKBENCH"/given/{packages,former}
  cp -- "$2"/*.deb "$WORKBENCH/given/packages"
  cp -- "$3"/*.deb "$WORKBENCH/given/former"
  : >"$WORKBENCH/given/log"
  mount -t overlay -o "lowerdir=/,upperdir=$WORKBENCH/upper,workdir=$WORKBENCH/work" package-root "$WORKBENCH/root"
  cd "$WORKBENCH/root"
  mount -t proc -o nosuid,nodev,noexec proc proc
  mount -t sysfs -o ro,nosuid,nodev,noexec sysfs sys
  mount -t tmpfs -o mode=0755 cgroup sys/fs/cgroup
  mount -t cgroup2 cgroup2 sys/fs/cgroup
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
  cp -r "$WORKBENCH/given" run
  mount --bind "$4" run/given/log
}

# This host's own services stay out of it, and what keeps packages from starting theirs.
prepare_host() {
  rm -rf etc/config etc/fenro usr/sbin/policy-rc.d
  : >etc/machine-id
  echo package-test >etc/hostname
  mkdir -p run/systemd/system
  cat >run/systemd/system/package-test.service <<'UNIT'
[Unit]
After=basic.target dbus.service
Wants=basic.target dbus.socket
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
Environment=PACKAGES=/run/given/packages FORMER=/run/given/former PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
ExecStart=/run/given/life
TimeoutStartSec=10min
StandardOutput=append:/run/given/log
StandardError=inherit
UNIT
}

make_root "$@"
prepare_host
ip link set lo up
hostname package-test
pivot_root . mnt
umount -l /mnt
cd /
exec env -i container=package-test /lib/systemd/systemd --unit=package-test.service --show-status=no
