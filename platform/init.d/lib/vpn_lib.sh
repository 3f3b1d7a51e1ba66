# shellcheck shell=dash
# What every VPN script shares: messages, settings of vpn.conf, checks of values, processes. Read by
# ".", never run. Callers may have an empty environment, the working directory "/" and no streams,
# so nothing is taken from them.
set -u
umask 077
PATH=/usr/sbin:/usr/bin:/sbin:/bin
LC_ALL=C
export PATH LC_ALL

VPN_CONF=/etc/config/vpn.conf
RUN_DIR=/run/fenro
# shellcheck disable=SC2034 # for the reader
ONLINE_USERS=/var/log/ormel_online_users
TUNNEL_SOCKET=$RUN_DIR/tunnel.sock
# A mark for each section that was turned on: fenro-keeperd starts what has ended.
WANTED_DIR=$RUN_DIR/wanted
CAP_NET_ADMIN=12 # its bit
MAX_SLOT=32
STOP_SECONDS=10
MAX_NAME_SERVERS=2 # as many as a client can be given
# Firewall mark of what tunnels send to their servers, and of answers to what came in by the host's
# own interfaces: it never goes into a tunnel. One bit, so that other marks of the host are left
# alone; decimal, as openvpn takes it.
# shellcheck disable=SC2034 # for the reader
TUNNEL_MARK=268435456

# The rows of all protocols.
# shellcheck source=/dev/null
. /usr/lib/fenro/protocols.sh

# For the journal: the program starts most scripts without streams.
note() { logger -t "${0##*/}" -- "$*" 2>/dev/null || :; }

# And for an onlooker.
say() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  note "$*"
}

# reason SECTION CODE [DETAIL]: notes why a tunnel or a server does not work. CODE is one of the
# table that fenro-reason has, or --start or --clear.
reason() {
  /usr/lib/fenro/fenro-reason "$@" </dev/null >/dev/null 2>&1 9>&- ||
    note "[$1] not noted: $2 ${3-}"
}

# die MESSAGE: one that begins with "[SECTION] " is noted as the section's reason.
die() { fail settings-bad "$*"; }

# fail CODE MESSAGE: the same with another code.
fail() {
  local section
  say "$2"
  case $2 in
    \[*\]\ *)
      section=${2#?}
      reason "${section%%]*}" "$1" "${2#*] }"
      ;;
  esac
  exit 1
}

# port_holder udp|tcp PORT: "python3 (pid 801)", "the kernel" for a socket without a process; fails
# when the port is free.
port_holder() {
  local row
  row=$(ss -H -l -n -p "--$1" "sport = :$2" 2>/dev/null | head -n 1)
  [ -n "$row" ] || return 1
  case $row in
    *users:*)
      printf '%s\n' "$row" | sed -n 's/.*users:(("\([^"]*\)",pid=\([0-9]*\),.*/\1 (pid \2)/p'
      ;;
    *) printf 'the kernel\n' ;;
  esac
}

# fail_without_port SECTION PROTOCOL PORT MESSAGE: of a daemon that does not serve; the cause may be
# that somebody else has its port. The protocol may be in OpenVPN's words.
fail_without_port() {
  local section="$1" protocol="${2%%[!a-z]*}" port="$3" holder
  shift 3
  if holder=$(port_holder "$protocol" "$port"); then
    protocol=$(printf '%s' "$protocol" | tr '[:lower:]' '[:upper:]')
    fail port-taken "[$section] $protocol port $port is held by ${holder:-another program}"
  fi
  fail daemon-ended "[$section] $*"
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

# An address of IPv6 as the kernel writes it; two colons at least.
is_ipv6() {
  case $1 in *[!0-9A-Fa-f:.]* | *:::*) return 1 ;; *:*:*) [ ${#1} -le 45 ] ;; *) return 1 ;; esac
}

# ipv4_network ADDRESS BITS: the network around an address, in CIDR form.
ipv4_network() {
  local bits="$2" IFS=. number
  # shellcheck disable=SC2086 # split at the dots on purpose
  set -- $1
  number=$((($1 << 24 | $2 << 16 | $3 << 8 | $4) & (0xffffffff << (32 - bits))))
  printf '%d.%d.%d.%d/%d\n' \
    $((number >> 24 & 255)) $((number >> 16 & 255)) $((number >> 8 & 255)) $((number & 255)) "$bits"
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

# name_servers SECTION KEY SWITCH: for clients of a server: the manual name server under KEY if
# SWITCH is on, else
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

# write_file PATH COMMAND...: the command's output becomes PATH, whole or not at all. A temporary file is locked while
# its writer lives; what a writer that was killed left goes here.
write_file() {
  local path="$1" temporary
  shift
  for temporary in "$path".tmp-??????; do
    if [ -f "$temporary" ] && [ ! -L "$temporary" ]; then
      flock -n "$temporary" rm -f "$temporary"
    fi
  done
  temporary=$(mktemp "$path.tmp-XXXXXX") || return 1
  # shellcheck disable=SC2094 # descriptor 8 is there for its lock
  if {
    flock -n 8 && "$@" >"$temporary" 8>&- && sync "$temporary" && [ -e "$temporary" ] && mv -f "$temporary" "$path"
  } 8>"$temporary"; then return 0; fi
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

# Marks are set and removed under the lock of the section's script, before the work itself: a start that fails leaves its
# mark, since the cause may go away.
wanted_add() { mkdir -p "$WANTED_DIR" && : >"$WANTED_DIR/$1"; }
wanted_remove() { rm -f "$WANTED_DIR/$1"; }

NOTHING_TO_DO=4 # exit status of "keep"

# may_keep SECTION: whether a tunnel that has ended may be started without anybody's order: it is on, and nothing is noted
# that makes another attempt useless. Run under the lock of the section's script, so what was turned off stays off.
may_keep() {
  is_true "$(vpn_get "$1" Enable FALSE)" &&
    ! /usr/lib/fenro/fenro-reason "$1" --final 2>/dev/null 9>&-
}

# server_action ACTION: a server that has started or was stopped has no reason.
# shellcheck disable=SC2153 # the script's own SECTION
server_action() {
  case $1 in
    start) wanted_add "$SECTION" ;;
    stop) wanted_remove "$SECTION" ;;
    keep)
      may_keep "$SECTION" && ! running || exit "$NOTHING_TO_DO"
      set -- start
      ;;
  esac
  [ "$1" != start ] || reason "$SECTION" --start
  "$1"
  reason "$SECTION" --clear
}

# server_script LOCK ARGUMENT...: the command line of a server's script, which has SECTION, start, stop and running.
# "keep" starts a server that is on and does not run, and leaves all others alone.
server_script() {
  local lock="$1"
  shift
  case "$#/${1-}" in
    1/start | 1/restart) with_lock "$lock" server_action start ;;
    1/stop) with_lock "$lock" server_action stop ;;
    1/keep) with_lock "$lock" server_action keep ;;
    1/status)
      if running; then printf 'running\n'; else
        printf 'stopped\n'
        exit 3
      fi
      ;;
    *) die 'usage: start|stop|restart|status|keep' ;;
  esac
}

base64_line() { printf '%s' "$1" | base64 -w 0; }

# A start script that finds itself without rights over networks, as the web programs are, hands its
# work to the unit that
# has them and goes by its outcome.
hand_over() {
  local key value
  case $0 in
    /etc/init.d/*.sh | /usr/sbin/verify_ovpn.sh) [ -S "$TUNNEL_SOCKET" ] || return 0 ;;
    *) return 0 ;;
  esac
  while read -r key value; do
    [ "$key" != CapEff: ] || break
  done </proc/self/status
  [ $((0x$value >> CAP_NET_ADMIN & 1)) -eq 0 ] || return 0
  exec /usr/lib/fenro/fenro-tunnel call "$0" "$@"
}
hand_over "$@"
