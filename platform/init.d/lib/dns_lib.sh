# shellcheck shell=dash
# The host's name servers: those of the tunnel that is the default gateway while it is, its own ones
# otherwise. Read by "." behind vpn_lib.sh.

RESOLVER=/etc/resolv.conf
RESOLVED=/run/systemd/resolve/resolv.conf # whom the resolver on the loopback asks
DNS_DIR=/var/lib/fenro/dns                # outlives a restart of the host, as the changed file does
DNS_HOST=$DNS_DIR/host                    # what the file said before
DNS_OURS=$DNS_DIR/ours                    # and what we have put there
DNS_STATE=$DNS_DIR/state                  # MANAGER INTERFACE SERVER, or "foreign"

# Where the caller may not write to the file, the unit that starts tunnels does.
dns_call() {
  local script=/etc/init.d/vpn_names.sh
  if [ -S "$TUNNEL_SOCKET" ] && [ ! -w "${RESOLVER%/*}" ]; then
    /usr/lib/fenro/fenro-tunnel call "$script" "$@" ||
      note "the name servers stay as they are: $* failed"
  else
    "$script" "$@" || note "the name servers stay as they are: $* failed"
  fi
}

# The host's own name servers, a line each, those on the loopback replaced by the ones they ask.
dns_host_servers() {
  local file=$RESOLVER
  [ ! -e "$DNS_HOST" ] || file=$DNS_HOST
  sed -n 's/^nameserver[[:space:]]*//p' "$file" "$RESOLVED" 2>/dev/null | sort -u | grep -v '^127\.'
}

# What manages the file: resolved, resolvconf or nothing.
dns_manager() {
  local target
  target=$(readlink -f "$RESOLVER")
  if command -v resolvectl >/dev/null && [ -d "${RESOLVED%/*}" ] &&
    { [ "${target%/*}" = "${RESOLVED%/*}" ] ||
      grep -q '^nameserver 127\.0\.0\.53' "$RESOLVER" 2>/dev/null; }; then
    printf 'resolved\n'
    return
  fi
  case $target in
    */resolvconf/*) if command -v resolvconf >/dev/null; then
      printf 'resolvconf\n'
      return
    fi ;;
  esac
  printf 'file\n'
}

# dns_write FILE: its contents become the resolver's, in one step where the folder allows it. A
# mount cannot be replaced.
dns_write() {
  local target
  target=$(readlink -f "$RESOLVER") || return 1
  if cp -p "$target" "$target.fenro" 2>/dev/null && cat "$1" >"$target.fenro" &&
    mv -f "$target.fenro" "$target" 2>/dev/null; then
    return 0
  fi
  rm -f "$target.fenro"
  cat "$1" >"$target"
}

# The words that change how names are looked up stay the host's.
dns_content() {
  printf '# The name server of %s, which is the default gateway. The own ones: %s\nnameserver %s\n' "$1" "$DNS_HOST" "$2"
  sed -n '/^\(search\|domain\|options\)[[:space:]]/p' "$DNS_HOST"
}

dns_report() {
  /usr/local/sbin/notify send -A A238 -C C002 -M 9001 -l warn -t 1000 '[{0}] {1}' 'ORMEL Service' \
    "$1" >/dev/null 2>&1 || :
  say "$1"
}

# dns_take INTERFACE SERVER, for a file that nothing manages
dns_take_file() {
  [ -e "$DNS_HOST" ] || cp "$RESOLVER" "$DNS_HOST" || return 1
  write_file "$DNS_OURS" dns_content "$1" "$2" && dns_write "$DNS_OURS"
}

dns_take() {
  case $(dns_manager) in
    resolved)
      resolvectl dns "$1" "$2" && resolvectl domain "$1" '~.' &&
        resolvectl default-route "$1" yes &&
        write_file "$DNS_STATE" printf 'resolved %s %s\n' "$1" "$2"
      ;;
    resolvconf)
      printf 'nameserver %s\n' "$2" | resolvconf -a "$1.fenro" &&
        write_file "$DNS_STATE" printf 'resolvconf %s %s\n' "$1" "$2"
      ;;
    *)
      write_file "$DNS_STATE" printf 'file %s %s\n' "$1" "$2" && dns_take_file "$1" "$2"
      ;;
  esac
}

# What somebody else has put there since is newer than what we kept.
dns_give_back_file() {
  if [ -e "$DNS_HOST" ]; then
    if cmp -s "$RESOLVER" "$DNS_OURS"; then
      dns_write "$DNS_HOST" || return 1
    elif ! cmp -s "$RESOLVER" "$DNS_HOST"; then
      dns_report "$RESOLVER was changed while a tunnel was the default gateway: the change stays."
    fi
  fi
  rm -f "$DNS_HOST" "$DNS_OURS"
}

dns_restore() {
  local manager='' interface=''
  [ -e "$DNS_STATE" ] || return 0
  read -r manager interface _ <"$DNS_STATE" || :
  case $manager in
    # it forgets an interface that is gone
    resolved) resolvectl revert "$interface" 2>/dev/null || : ;;
    resolvconf) resolvconf -d "$interface.fenro" || return 1 ;;
    file) dns_give_back_file || return 1 ;;
  esac
  rm -f "$DNS_STATE"
}

# dns_use INTERFACE [SERVER]: without one the host's own name servers stay, and are asked through
# the tunnel.
dns_use() {
  local manager='' interface='' server=''
  mkdir -p "$DNS_DIR" || return 1
  [ ! -e "$DNS_STATE" ] || read -r manager interface server <"$DNS_STATE" || :
  # A change by somebody else counts until another tunnel takes over.
  if [ "$manager" = foreign ] && [ "$interface" = "$1" ]; then return 0; fi
  if [ "$manager" = file ] && [ -e "$DNS_OURS" ] && ! cmp -s "$RESOLVER" "$DNS_OURS"; then
    dns_restore && write_file "$DNS_STATE" printf 'foreign %s\n' "$1"
    return
  fi
  [ "$interface $server" != "$1 ${2-}" ] || return 0
  [ -n "${2-}" ] || {
    dns_restore
    return
  }
  [ "$manager" = file ] || dns_restore || return 1
  dns_take "$1" "$2"
}
