#!/usr/bin/env bash
# Process 1 of a private appliance: puts its root together, makes it the root, and goes on as its
# init.
#
# The new root is a tmpfs. /usr is the host's with the installed tree on top (overlay); /etc is a
# copy of the host's without its secrets and accounts; everything else starts empty. Whole folders
# of the host are never laid under /etc or /var: an ordinary user's namespace could not change files
# in them, and their logs are not ours.
set -euo pipefail
HERE=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
# shellcheck source=script/lib/common.sh
. "$HERE/common.sh"
# shellcheck source=script/lib/appliance-options.sh
. "$HERE/appliance-options.sh"
# shellcheck source=script/lib/appliance-accounts.sh
. "$HERE/appliance-accounts.sh"
# shellcheck source=script/lib/appliance-init.sh
. "$HERE/appliance-init.sh"

GATEWAY=192.168.77.254 # the far end of the cable
NEEDED_MB=4            # beside the copy of /etc: settings, logs, the log database

# What of the host's /etc stays outside: secrets, accounts, and what belongs to an ormel installed
# on the host.
HIDDEN_ETC=(config fenro ormel openvpn wireguard ssh ssl/private sudoers sudoers.d subuid subgid
  'passwd*' 'group*' 'shadow*' 'gshadow*' ppp/chap-secrets ppp/pap-secrets ppp/peers \
    ipsec.secrets ipsec.d swanctl
  NetworkManager krb5.keytab 'cron*' machine-id resolv.conf hosts hostname nsswitch.conf mtab)

DEVICES=(null zero full random urandom tty net/tun ppp) # where the host has them

# A folder of the host to build under: mounts on it are visible only here. None of the paths
# still needed may lie in it.
choose_workbench() {
  local place path
  for place in /mnt /media /srv /home; do
    [[ -d $place ]] || continue
    for path in "$TREE" "$STAGE" "$STATE" "$CLOUD" "${BINDS[@]}" "${BINDS_RW[@]}"; do
      [[ $path/ != "$place"/* ]] || continue 2
    done
    WORKBENCH=$place
    return
  done
  die "found no folder to mount the new root on: tried /mnt, /media, /srv and /home"
}

make_skeleton() {
  local link links=()
  mount -t tmpfs -o mode=0755 appliance-layers "$WORKBENCH"
  mkdir "$WORKBENCH"/{root,work,upper}
  mount -t tmpfs -o mode=0755 appliance "$WORKBENCH/root"
  cd "$WORKBENCH/root"
  mkdir -p dev/{net,pts,shm} etc home mnt opt proc run/{appliance/log,lock,netns} srv sys tmp usr \
    var
  (umask 077 && mkdir -p root run/fenro/sessions)
  chmod 1777 tmp
  for link in bin sbin lib lib32 lib64 libx32; do
    [[ ! -L /$link ]] || links+=("/$link")
  done
  cp -P "${links[@]}" .
}

# With --state, /etc and /var are the given folder's and what is in them already wins over the
# host's.
lay_etc_and_var() {
  if [[ $STATE ]]; then
    chmod 0700 "$STATE"
    mkdir -p "$STATE"/{etc,var}
    mount --bind "$STATE/etc" etc
    mount --bind "$STATE/var" var
    (($(df --output=avail --block-size=1M etc | tail -n 1) >= NEEDED_MB)) ||
      die "the disk of $STATE is full: an appliance needs $NEEDED_MB MB there"
  fi
  mkdir -p var/{cache,lib,local,log,mail,opt,spool,tmp}
  chmod 1777 var/tmp
  [[ -L var/run ]] || ln -s /run /run/lock var # "lock" and "run"
  if [[ ! -e etc/passwd ]]; then
    {
      tar -C / --create --ignore-failed-read --warning=no-failed-read \
        "${HIDDEN_ETC[@]/#/--exclude=etc/}" etc |
        tar --extract --no-same-owner
    } 2>run/appliance/etc.err ||
      die "cannot copy /etc into the appliance: $(head -n 1 run/appliance/etc.err)"
    (umask 077 &&
      mkdir -p etc/ppp/peers etc/ssl/private var/lib/{appliance,ormel/{audit,snapshots}} \
        home/{admin,guest})
    write_host_files
    write_accounts
  fi
}

write_host_files() {
  local address=${ADDRESS%/*}
  printf '%s\n' "$NAME" >etc/hostname
  printf '127.0.0.1 localhost\n%s %s\n' "$address" "$NAME" >etc/hosts
  printf '# no name server: this appliance has no way out\n' >etc/resolv.conf
  printf '%s\n' 'passwd: files' 'group: files' 'shadow: files' 'hosts: files dns' \
    'services: files' \
    'protocols: files' >etc/nsswitch.conf
  printf '%08x%08x%08x%08x\n' "$SRANDOM" "$SRANDOM" "$SRANDOM" "$SRANDOM" >etc/machine-id
  ln -sfn /proc/self/mounts etc/mtab
  (umask 077 && : >etc/ppp/chap-secrets && : >etc/ppp/pap-secrets)
}

# The installed tree is copied, not laid over: a new build meanwhile would pull it away from under
# the appliance.
lay_stage() {
  local lock options entry
  if [[ -r $STAGE.lock ]]; then
    exec {lock}<"$STAGE.lock"
    flock --shared "$lock"
  fi
  for entry in "$STAGE"/*; do
    if [[ $entry == */usr ]]; then
      cp -r --preserve=mode,links "$entry/." "$WORKBENCH/upper"
    else
      cp -r --preserve=mode,links "$entry" .
    fi
  done
  [[ ! ${lock-} ]] || exec {lock}<&-
  options=lowerdir=/usr,upperdir=$WORKBENCH/upper,workdir=$WORKBENCH/work
  ((IS_ROOT)) || options+=,userxattr
  mount -t overlay -o "$options" appliance-usr usr 2>run/appliance/overlay.err ||
    die "cannot lay the installed tree \
over /usr with an overlay mount ($(<run/appliance/overlay.err)): this kernel lacks overlay \
or allows it to root only, /usr is itself on two overlays or on a file system that overlay \
refuses, or something is mounted below it"
}

# Its secrets are made again at each start.
lay_cloud() {
  [[ $CLOUD ]] || return 0
  (umask 077 && mkdir run/cloud)
  cp --preserve=mode "$CLOUD"/{fenro-cloud,make_certificates.sh,domain,world.json} run/cloud
}

# Everything that does not depend on the options is one table for one mount command. Of /proc/sys
# only net is ours (it belongs to the network namespace); the rest is the host's kernel.
mount_kernel_views() {
  local root=$PWD device lines=()
  for device in "${DEVICES[@]}"; do
    [[ -e /dev/$device ]] || continue
    : >"dev/$device"
    lines+=("/dev/$device $root/dev/$device none bind")
  done
  lines+=(
    "devpts $root/dev/pts devpts newinstance,ptmxmode=0666,mode=0620"
    "shm $root/dev/shm tmpfs mode=1777,nosuid,nodev"
    "sysfs $root/sys sysfs ro,nosuid,nodev,noexec"
    "proc $root/proc proc nosuid,nodev,noexec"
    "$root/proc/sys $root/proc/sys none bind"
    "$root/proc/sys/net $root/proc/sys/net none bind"
  )
  [[ ! -e /proc/sysrq-trigger ]] || lines+=("/dev/null $root/proc/sysrq-trigger none bind")
  printf '%s\n' "${lines[@]}" >run/appliance/fstab
  mount --all --fstab "$root/run/appliance/fstab" ||
    die "cannot mount a /proc and /sys of our own: the container around us hides parts of its own"
  mount -o remount,bind,ro proc/sys
  cp -P /dev/fd /dev/stdin /dev/stdout /dev/stderr dev
  ln -s pts/ptmx dev/ptmx
}

# In the order of their names, so that a folder comes before what is bound below it.
bind_folders() {
  local path
  while read -r path; do
    [[ $path ]] || continue
    mkdir -p ".$path"
    mount --bind "$path" ".$path"
  done < <(printf '%s\n' "${BINDS[@]}" "${BINDS_RW[@]}" | sort -u)
  for path in "${BINDS[@]}"; do mount -o remount,bind,ro ".$path"; done
}

# A cable from eth0 to a bridge in the network namespace "lan", which stands for the local network:
# it answers as the gateway and says at once that there is nothing behind it. A second appliance can
# be plugged in there.
make_network() {
  local lan=$PWD/run/netns/lan switch=()
  if [[ $JOIN ]]; then
    lan=/proc/$JOIN/root/run/netns/lan
    [[ -e $lan ]] || die "process $JOIN is no process 1 of an appliance that we may look into"
  else
    : >"$lan"
    # Not unshare --net=FILE: that looks our number up in /proc, which is the host's still.
    unshare --net mount --no-canonicalize --bind /proc/self/ns/net "$lan"
    switch=('link set lo up' 'link add br0 type bridge' 'link set br0 up' \
      "address add $GATEWAY/24 dev br0")
  fi
  ip -batch - <<TEXT
link add eth0 type veth peer name to-$NAME netns $lan
link set lo up
link set eth0 up
address add $ADDRESS broadcast + dev eth0
route add default via $GATEWAY
TEXT
  switch+=("link set to-$NAME up master br0")
  printf '%s\n' "${switch[@]}" |
    nsenter --net="$lan" bash -c 'echo 1 >/proc/sys/net/ipv4/ip_forward && exec ip -batch -'
}

# The host's whole tree of mounts goes away with its root.
change_root() {
  hostname "$NAME"
  pivot_root . .
  umount -l .
  cd /
}

trap 'exit 143' TERM # process 1 has no other way to be ended politely
umask 022
read -r HOST_PID _ <"/proc/self/stat" # the host's /proc still: the number that we have out there
IS_ROOT=1
read -r _ outside _ </proc/self/uid_map
((outside == 0)) || IS_ROOT=0
parse_options "$@"
choose_workbench
make_skeleton
lay_etc_and_var
lay_stage
lay_cloud
make_network
mount_kernel_views
bind_folders
change_root
be_init
