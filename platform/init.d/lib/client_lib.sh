# shellcheck shell=dash
# What the scripts and hooks of client tunnels share: the keys of a profile that describe its
# tunnel, the connection log, and the executables run as the tunnel comes and goes. Read by "."
# behind vpn_lib.sh.
# shellcheck disable=SC2034,SC2154 # some names are for the reader, others from vpn_lib.sh

# shellcheck source=guard_lib.sh
. /usr/lib/fenro/guard_lib.sh

AS_LOOKUP=/usr/lib/fenro/as-lookup
CLIENT_MARKS=$RUN_DIR/tunnels # a file for each client tunnel that is up: LOCAL REMOTE SINCE SERVER
ANSWER_PRIORITY=15000         # plus the unit
LOOKUP_SECONDS=10             # that the name of a server may take

# client_slot SECTION: sets slot, unit and interface of the profile that the section holds.
client_slot() {
  local row prefix
  for row in $CLIENT_TUNNELS; do
    prefix=${row%%:*}
    slot=${1#"$prefix"}
    is_slot "$slot" && [ "$1" = "$prefix$slot" ] || continue
    unit=$((${row##*:} + slot))
    row=${row#*:}
    interface=${row%:*}$unit
    return 0
  done
  return 1
}

# client_script PREFIX ACTIONS ARGUMENT...: the command line of a client's script, one of ACTIONS
# and the index of a profile. Sets section, which begins with PREFIX, and what client_slot sets.
client_script() {
  local prefix="$1" actions="$2"
  shift 2
  case "$#/ $actions " in
    "2/"*" ${1-} "*) ;;
    *) die "usage: $(printf '%s' "$actions" | tr ' ' '|') INDEX" ;;
  esac
  section=$prefix$2
  client_slot "$section" || die "not a profile index: '$2'"
}

# client_action ACTION: run under the script's lock. What was noted about a profile does not outlive
# a start or a stop; a "redial" is neither. Scripts have running, start_action and, if it is not
# client_down, down_action. To their own actions come "keep", which starts a tunnel that is on and
# does not run, and "forget", the falling edge of one whose daemon was killed.
client_action() {
  local status=0
  case $1 in
    start | connect)
      wanted_add "$section"
      reason "$section" --start
      ;;
    stop | disconnect | remove) wanted_remove "$section" ;;
  esac
  "$1" || status=$?
  case $1 in stop | disconnect | remove) reason "$section" --clear ;; esac
  return "$status"
}

keep() {
  may_keep "$section" && ! running || exit "$NOTHING_TO_DO"
  # Routing and NAT of the interface are set up when a profile is added; a restart of the host or
  # its firewall takes them.
  /etc/init.d/vpn_common.sh add_vpnclient_profile "$interface" 9>&- || :
  reason "$section" --start
  "$start_action"
}

forget() {
  ! running || exit "$NOTHING_TO_DO"
  ! client_known "$section" || "${down_action:-client_down}" "$section"
}

# A profile may be gone by now; setting a key would bring a part of its section back.
client_known() { [ -n "$(vpn_get "$1" Index)" ]; }

# client_resolve HOST: an address of it. Looked up once, so that everything about a tunnel names the
# same.
client_resolve() {
  local address
  address=$("$AS_LOOKUP" timeout "$LOOKUP_SECONDS" getent ahostsv4 "$1" |
    awk 'NR == 1 { print $1 }')
  is_ipv4 "$address" && guard_admit "$address" && printf '%s\n' "$address"
}

# client_up SECTION LOCAL REMOTE SERVER [DNS]: the rising edge.
client_up() {
  local since
  client_answers_remove
  ip rule add from "$2" lookup "$unit" priority $((ANSWER_PRIORITY + unit)) 2>/dev/null ||
    note "[$1] what comes in by the tunnel may be answered by another way"
  # LocalIP comes last: a profile that has it counts as connected, and the rest should be there by
  # then.
  vpn_set "$1" RemoteIP "$3"
  vpn_set "$1" 'Real Address' "$4"
  if is_ipv4 "${5-}"; then vpn_set "$1" 'DNS Server' "$5"; fi
  reason "$1" --clear
  since=$(date +%s)
  vpn_set "$1" 'Time Stamp' "$since"
  vpn_set "$1" LocalIP "$2"
  mkdir -p "$CLIENT_MARKS"
  printf '%s %s %s %s\n' "$2" "$3" "$since" "$4" >"$RUN_DIR/$1.mark"
  mv -f "$RUN_DIR/$1.mark" "$CLIENT_MARKS/$1"
  client_log "$1" client-up "$2" "$4"
  client_edge "$1" Up "$2" "$3"
}

# What comes from a tunnel's own address goes into it: an answer does not leave in clear by the
# host's own route.
client_answers_remove() {
  local priority=$((ANSWER_PRIORITY + unit))
  while [ -n "$(ip rule show priority "$priority" 2>/dev/null)" ] &&
    ip rule del priority "$priority" 2>/dev/null; do
    :
  done
}

# client_down SECTION: the falling edge. The process that removes the mark runs it, so it runs
# once. The mark contains what the row needs, since another process that ends the same tunnel may
# be clearing the keys.
client_down() {
  local local_ip remote_ip server since taken="$RUN_DIR/$1.ended.$$"
  client_clear "$1"
  client_answers_remove
  rm -f "$RUN_DIR/heard/$interface"
  mv "$CLIENT_MARKS/$1" "$taken" 2>/dev/null || return 0
  read -r local_ip remote_ip since server <"$taken"
  rm -f "$taken"
  client_log "$1" client-down "$local_ip" "$server" "$since"
  client_edge "$1" Down "$local_ip" "$remote_ip"
}

# client_log SECTION EVENT LOCAL SERVER [SINCE]: a row of the connection log, for protocols that
# have any. A hook that knows the bytes has them in CONNECTION_RECEIVED and CONNECTION_SENT.
client_log() {
  local row type section="$1" event="$2"
  shift 2
  type=
  for row in $LOGGED_CLIENTS; do
    is_slot "${section#"${row%:*}"}" && type=${row#*:}
  done
  [ -n "$type" ] || return 0
  CONNECTION_NAME=$(vpn_get "$section" 'Profile File') CONNECTION_RECEIVED=${CONNECTION_RECEIVED-} \
    CONNECTION_SENT=${CONNECTION_SENT-} /usr/lib/fenro/fenro-connection "$event" "$type" \
      "$@" 2>/dev/null ||
    note "[$section] the connection is not in the log"
}

# Empties what a tunnel that is up has written. A key that is empty already is left alone: each
# write costs a flush.
client_clear() {
  local key
  for key in LocalIP RemoteIP 'Real Address' 'DNS Server'; do
    [ -z "$(vpn_get "$1" "$key")" ] || vpn_set "$1" "$key" ''
  done
  [ "$(vpn_get "$1" 'Time Stamp' 0)" = 0 ] || vpn_set "$1" 'Time Stamp' 0
}

# client_edge SECTION KEY LOCAL REMOTE: runs the executable under "Up" or "Down" on its own, if
# there is one. It takes no arguments, and of the environment only what it may want to know.
client_edge() {
  local program
  program=$(vpn_get "$1" "$2")
  [ -n "$program" ] || return 0
  case $program in
    /*) ;;
    *) program= ;;
  esac
  if [ ! -f "$program" ] || [ ! -x "$program" ]; then
    say "$1: no executable under \"$2\""
    return 0
  fi
  setsid -f env -i PATH="$PATH" INTERFACE="$interface" LOCAL_IP="$3" REMOTE_IP="$4" "$program" \
    </dev/null >/dev/null 2>&1 9>&-
}
