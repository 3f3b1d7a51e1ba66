# shellcheck shell=dash
# What every VPN script shares: messages, settings of vpn.conf, checks of values, processes. Read by ".", never run.
# Callers may have an empty environment, the working directory "/" and no streams, so nothing is taken from them.
set -u
umask 077
PATH=/usr/sbin:/usr/bin:/sbin:/bin
LC_ALL=C
export PATH LC_ALL

VPN_CONF=/etc/config/vpn.conf
RUN_DIR=/run/fenro
# shellcheck disable=SC2034 # for the reader
ONLINE_USERS=/var/log/ormel_online_users
MAX_SLOT=32
STOP_SECONDS=10
MAX_NAME_SERVERS=2 # what a client can be told

# Client tunnels: section of a profile before its slot, interface before its unit, and the unit less the slot.
# shellcheck disable=SC2034 # for the reader
CLIENT_TUNNELS='PPTP_CLIENT:ppp:1000 L2TP_CLIENT:ppp:1250 OPENVPN_CLIENT:tun:2000 DROVIK_CLIENT:dtunc:2500 WG_CLIENT:wgc:3000'

# For the journal: the program starts most scripts without streams.
note() { logger -t "${0##*/}" -- "$*" 2>/dev/null || :; }

# And for whoever looks on.
say() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  note "$*"
}

die() {
  say "$*"
  exit 1
}

# vpn_get SECTION KEY [DEFAULT]. A value is data: it is printed, never evaluated.
vpn_get() { /sbin/getcfg "$1" "$2" -f "$VPN_CONF" -d "${3-}" 2>/dev/null || :; }

vpn_set() { /sbin/setcfg "$1" "$2" "$3" -f "$VPN_CONF"; }

is_true() {
  case $1 in 1 | [Tt][Rr][Uu][Ee] | [Yy][Ee][Ss]) return 0 ;; esac
  return 1
}

# A plain decimal number from $2 to $3, short enough for the shell's arithmetic.
is_number() {
  case $1 in '' | *[!0-9]* | 0?* | ??????????*) return 1 ;; esac
  [ "$1" -ge "$2" ] && [ "$1" -le "$3" ]
}

is_slot() { is_number "$1" 1 "$MAX_SLOT"; }

is_ipv4() {
  case $1 in '' | *[!0-9.]* | *.) return 1 ;; esac
  local IFS=.
  # shellcheck disable=SC2086 # split at the dots on purpose; only digits are left
  set -- $1
  [ $# -eq 4 ] || return 1
  local octet
  for octet in "$@"; do is_number "$octet" 0 255 || return 1; done
}

# ipv4_network ADDRESS BITS: the network around an address, in CIDR form.
ipv4_network() {
  local bits="$2" IFS=. number
  # shellcheck disable=SC2086 # split at the dots on purpose
  set -- $1
  number=$((($1 << 24 | $2 << 16 | $3 << 8 | $4) & (0xffffffff << (32 - bits))))
  printf '%d.%d.%d.%d/%d\n' $((number >> 24 & 255)) $((number >> 16 & 255)) $((number >> 8 & 255)) $((number & 255)) "$bits"
}

# A host name in its strictest sense: letters, digits, "-" and ".", and no option in disguise.
is_hostname() {
  case $1 in '' | [-.]* | *[!A-Za-z0-9.-]*) return 1 ;; esac
  [ ${#1} -le 255 ]
}

# What "interface" of a server may be: "all", "none" or the name of an interface.
is_outgoing() {
  case $1 in *[!a-z0-9]* | '' | ????????????????*) return 1 ;; esac
}

# name_servers SECTION KEY SWITCH: what clients of a server are told: the manual name server under KEY if SWITCH is on, else
# the appliance's own ones that a client can reach.
name_servers() {
  local manual word server count=0
  manual=$(vpn_get "$1" "$2" 0.0.0.0)
  if is_true "$(vpn_get "$1" "$3" FALSE)" && is_ipv4 "$manual" && [ "$manual" != 0.0.0.0 ]; then
    printf '%s\n' "$manual"
    return
  fi
  while read -r word server _ || [ -n "$word" ]; do
    [ "$word" = nameserver ] && is_ipv4 "$server" || continue
    case $server in 127.*) continue ;; esac
    count=$((count + 1))
    [ "$count" -le "$MAX_NAME_SERVERS" ] || break
    printf '%s\n' "$server"
  done </etc/resolv.conf
}

# write_file PATH COMMAND...: the command's output becomes PATH, whole or not at all.
write_file() {
  local path="$1" temporary
  shift
  temporary=$(mktemp "$path.XXXXXX") || return 1
  if "$@" >"$temporary" && sync "$temporary" && mv -f "$temporary" "$path"; then return 0; fi
  rm -f "$temporary"
  return 1
}

# pids_of NAME ARGUMENT: our own processes whose program goes by NAME and that were given ARGUMENT.
pids_of() {
  local file name pid
  grep -lszxF -e "$2" /proc/[0-9]*/cmdline | while read -r file; do
    name=$(head -zn 1 "$file" 2>/dev/null | tr -d '\0')
    pid=${file#/proc/}
    pid=${pid%/cmdline}
    # The owner is tested, since anyone may start a program under any name.
    [ "${name##*/}" = "$1" ] && [ -O "/proc/$pid" ] && printf '%s\n' "$pid"
  done
  return 0
}

# end_processes NAME ARGUMENT: asks them to end, and kills what is left after STOP_SECONDS.
end_processes() {
  local rounds=$((STOP_SECONDS * 5)) pids signal=TERM
  while pids=$(pids_of "$1" "$2") && [ -n "$pids" ]; do
    # shellcheck disable=SC2086 # one word for each pid
    [ -z "$signal" ] || kill -s "$signal" $pids 2>/dev/null || :
    signal=
    rounds=$((rounds - 1))
    [ "$rounds" -ne 0 ] || signal=KILL
    [ "$rounds" -gt -10 ] || return 1
    sleep 0.2
  done
}

# with_lock NAME COMMAND...: one script at a time. The command's own programs must not inherit descriptor 9.
with_lock() {
  local name="$1"
  shift
  [ -d "$RUN_DIR" ] || mkdir -p "$RUN_DIR" || return 1
  { flock 9 && "$@"; } 9>"$RUN_DIR/$name.lock"
}

# server_script LOCK ARGUMENT...: the command line of a server's script, which has start, stop and running.
server_script() {
  local lock="$1"
  shift
  case "$#/${1-}" in
    1/start | 1/restart) with_lock "$lock" start ;;
    1/stop) with_lock "$lock" stop ;;
    1/status)
      if running; then printf 'running\n'; else
        printf 'stopped\n'
        exit 3
      fi
      ;;
    *) die 'usage: start|stop|restart|status' ;;
  esac
}

base64_line() { printf '%s' "$1" | base64 -w 0; }
