# shellcheck shell=dash
# What the scripts of OpenVPN share: what a client profile may say, and the sessions of the server.
# Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034 # some names are for the reader

OVPN_SERVER_BIT=4
OVPN_CLIENTS=/etc/config/openvpn/clients
OVPN_DAEMON=/usr/sbin/openvpn

# The reader of foreign profiles.
ovpn_profile() { /usr/lib/fenro/fenro-openvpn-profile "$@"; }

# ovpn_known_ciphers PROFILE: its "data-ciphers" without those that the installed daemon would
# refuse to start with.
ovpn_known_ciphers() {
  {
    "$OVPN_DAEMON" --show-ciphers 2>/dev/null | sed -n 's/^\([A-Z0-9][A-Za-z0-9-]*\) .*/known \1/p'
    printf 'list %s\n' "$(ovpn_value data-ciphers "$1")"
  } | awk '
    $1 == "known" { known[toupper($2)] = $2; next }
    $1 == "list" {
      count = split($2, part, ":")
      list = ""
      for (i = 1; i <= count; ++i) {
        cipher = toupper(part[i]) == "NONE" ? "none" : known[toupper(part[i])]
        if (cipher != "") list = list (list == "" ? "" : ":") cipher
      }
    }
    END { print list }'
}

ovpn_manage() { /usr/lib/fenro/fenro-openvpn-manage "$@" 2>/dev/null; }

# ovpn_listed all|one WHO: addresses in the tunnel of those whom the list of online users knows as
# WHO: by the user, or for "one" also by an address, with or without its port. A client may have
# moved to another port since.
ovpn_listed() {
  [ -e "$ONLINE_USERS" ] || return 0
  WHO=$2 WHO_USER=$(base64_line "$2") awk -v type="$OVPN_SERVER_BIT" -v kind="$1" '
    BEGIN { who = ENVIRON["WHO"]; user = ENVIRON["WHO_USER"] }
    $6 == type && ($8 == user ||
      (kind == "one" && ($2 ":" $3 == who || $2 == who || $5 == who))) { print $5 }
  ' "$ONLINE_USERS"
}

# ovpn_sessions all|one [WHO]: the same as numbers in the daemon's own count; all of them without
# WHO.
ovpn_sessions() {
  local listed=
  [ -z "${2-}" ] || listed=$(ovpn_listed "$1" "$2")
  ovpn_manage 'status 3' | KIND=$1 WHO=${2-} LISTED=$listed awk -F '\t' '
    BEGIN { who = ENVIRON["WHO"]; count = split(ENVIRON["LISTED"], row, "\n")
      for (i = 1; i <= count; ++i) listed[row[i]] }
    $1 != "CLIENT_LIST" { next }
    who == "" || $10 == who || $4 in listed || (ENVIRON["KIND"] == "one" && $3 == who) { print $11 }'
}

# ovpn_kick all|one [WHO]: makes the clients end, not to come back at once.
ovpn_kick() {
  local session
  for session in $(ovpn_sessions "$@"); do
    ovpn_manage "client-kill $session HALT" >/dev/null
  done
}

# A kernel with TUN devices, the module loaded and the device in place.
ovpn_device() {
  [ -c /dev/net/tun ] || modprobe -q tun 2>/dev/null || :
  [ -c /dev/net/tun ] || { mkdir -p /dev/net && mknod -m 600 /dev/net/tun c 10 200 2>/dev/null; }
  # Without a driver behind it the device can't be opened.
  { : <>/dev/net/tun; } 2>/dev/null
}

# ovpn_value NAME PROFILE: the first word of the last line of a name.
ovpn_value() { ovpn_profile value "$1" <"$2" 2>/dev/null; }

# ovpn_jail PLACE COMMAND...: runs the command in a separate view of the file system, in which the
# system is read-only and PLACE is an empty folder in memory, root's alone, that goes with the last
# process in there. A hook of ours writes settings, so these stay. With PLACE "" nothing can be
# written but a /tmp that is its own. What the kernel refuses is said aloud, and the command runs
# without it. Nothing is run behind this.
# shellcheck disable=SC2016 # for the other shell
OVPN_JAIL='
  . /usr/lib/fenro/vpn_lib.sh
  place=$1
  shift
  refused() { say "the kernel refuses a separate view of the file system: $1 stays as it is"; }
  if [ -n "$place" ]; then
    { mkdir -p -m 0700 "$place" && mount -t tmpfs -o mode=0700,size=32m,nosuid,nodev,noexec none "$place"; } || refused "$place"
    for folder in /etc/config /etc/resolv.conf; do
      [ ! -e "$folder" ] || mount --bind "$folder" "$folder" || refused "$folder"
    done
    set -- /usr /boot /etc /bin /sbin /lib /lib64 -- "$@"
  else
    mount -t tmpfs -o mode=1777,size=1m,nosuid,nodev,noexec none /tmp || refused /tmp
    set -- / /usr /boot /etc /etc/config /home /root \
      /run /run/lock /var /var/tmp /var/log /dev/shm -- "$@"
  fi
  while [ "$1" != -- ]; do
    folder=$1
    shift
    [ -d "$folder" ] && [ ! -L "$folder" ] || continue
    [ "$folder" = / ] || mount --rbind "$folder" "$folder" 2>/dev/null ||
      { refused "$folder"; continue; }
    mount -o remount,bind,ro "$folder" 2>/dev/null || refused "$folder"
  done
  shift
  exec "$@"'

ovpn_jail() {
  unshare --mount -- true 2>/dev/null || {
    say 'the kernel refuses a separate view of the file system: the daemon sees the system as it is'
    shift
    exec "$@"
  }
  exec unshare --mount --propagation private -- /bin/sh -c "$OVPN_JAIL" "${0##*/}" "$@"
}

# ovpn_section INTERFACE: the section of the client profile that it belongs to.
ovpn_section() {
  is_number "${1#tun}" 2001 $((2000 + MAX_SLOT)) && printf 'OPENVPN_CLIENT%s\n' $((${1#tun} - 2000))
}

# ovpn_client_down SECTION: what only this protocol leaves in a profile goes with the rest.
ovpn_client_down() {
  local key
  client_down "$1"
  for key in 'Trusted IP' 'Trusted Proto'; do
    [ -z "$(vpn_get "$1" "$key")" ] || vpn_set "$1" "$key" ''
  done
}
