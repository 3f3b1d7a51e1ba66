# shellcheck shell=dash
# What the scripts of the PPP protocols share: settings, option files of pppd, the kernel.
# Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034,SC2154 # some names are for the reader, others from vpn_lib.sh

PPP_DIR=/etc/config/ppp
PEERS_DIR=$PPP_DIR/peers
PPTP_SESSIONS=$PPP_DIR/options.pptpd # a server's sessions are found by the file of their options
L2TP_SESSIONS=$PPP_DIR/options.xl2tpd
PPP_WORD_MAX=255   # pppd cuts names and passwords behind it
TCP_IP_HEADERS=40  # an MTU is so much larger than the segment it carries
LINK_MTU=1400      # of a client; leaves room for the tunnel's own headers on an Ethernet path
REDIAL_SECONDS=10
HOOK_SECONDS=30    # that a hook may take: pppd itself would end it after 5
CLIENT_DOWN=/usr/lib/fenro/ppp-client-down

# Standard input as one word of an option file. Everything but plain characters becomes an octal
# escape, so no name or password can end the word, begin a comment or bring in another option. Fails
# for what pppd cannot hold.
ppp_word() {
  od -An -v -tu1 | awk -v max="$PPP_WORD_MAX" '
    BEGIN { printf "\"" }
    {
      for (i = 1; i <= NF; ++i) {
        byte = $i + 0
        if (byte == 0 || ++count > max) { failed = 1; exit }
        character = sprintf("%c", byte)
        if (byte < 128 && character ~ /[A-Za-z0-9._@-]/) printf "%s", character
        else printf "\\%03o", byte
      }
    }
    END { print "\""; exit failed }'
}

# ppp_authentication VERB METHOD: "require" asks the method of the peer, "refuse" leaves only it for
# ourselves.
ppp_authentication() {
  local method chosen
  case $2 in
    1) chosen=pap ;;
    2) chosen=mschap-v2 ;;
    3) chosen=mschap ;;
    4) chosen=chap ;;
    *) return 1 ;;
  esac
  if [ "$1" = require ]; then printf 'require-%s\n' "$chosen"; fi
  for method in pap chap mschap mschap-v2 eap; do
    [ "$method" = "$chosen" ] || printf 'refuse-%s\n' "$method"
  done
}

# ppp_encryption LEVEL METHOD. MPPE takes its keys from an MS-CHAP login; pppd ends a link that asks
# for it with another.
ppp_encryption() {
  case $1/$2 in
    0/* | [12]/[14]) printf 'nomppe\n' ;;
    1/*) printf 'require-mppe\n' ;;
    2/*) printf 'require-mppe-128\n' ;;
    *) return 1 ;;
  esac
}

# A kernel with PPP, its module loaded and its device in place.
ppp_available() {
  grep -qs ' ppp$' /proc/devices || modprobe -q ppp_generic 2>/dev/null || :
  grep -qs ' ppp$' /proc/devices || return 1
  [ -c /dev/ppp ] || mknod -m 600 /dev/ppp c 108 0 2>/dev/null
}

# ppp_server_settings SECTION BEGIN END: reads what all PPP servers have, with the default pool
# given, and refuses what the daemons could not take. "Authentcation" is the file's own name.
ppp_server_settings() {
  local pool_begin pool_end
  pool_begin=$(vpn_get "$1" 'Client IP 1' "$2")
  pool_end=$(vpn_get "$1" 'Client IP 2' "$3")
  maximum=$(vpn_get "$1" 'Max Client' 5)
  outgoing=$(vpn_get "$1" interface all)
  authentication=$(vpn_get "$1" Authentcation 2)
  mss=$(vpn_get "$1" MSS 1300)

  is_ipv4 "$pool_begin" && is_ipv4 "$pool_end" || die "[$1] bad address pool"
  network=${pool_begin%.*}
  first=${pool_begin##*.} last=${pool_end##*.}
  [ "$network" = "${pool_end%.*}" ] || die "[$1] the pool is not within one /24 network"
  { [ "$first" -ge 2 ] && [ "$first" -le "$last" ] && [ "$last" -le 254 ]; } ||
    die "[$1] bad address pool"
  is_number "$maximum" 1 253 || die "[$1] bad \"Max Client\""
  is_number "$authentication" 1 4 || die "[$1] bad \"Authentcation\""
  # Its answer takes the password itself, and the password table has hashes.
  [ "$authentication" != 4 ] ||
    die "[$1] CHAP can't be checked against the accounts, no user would be admitted: choose MS-CHAPv2"
  is_number "$mss" 1000 1400 || die "[$1] bad \"MSS\""
  is_outgoing "$outgoing" || die "[$1] bad \"interface\""
}

# ppp_session_options SECTION NAME TYPE ENCRYPTION: the options of a server's sessions. NAME is the
# server's in the secrets files, TYPE its bit, which the hooks want. The MTU carries the MSS to both
# ends: a client derives its segments from the link, and for what a client ignores there is the
# clamp of the firewall.
ppp_session_options() {
  cat <<OPTIONS
# Written by ${0##*/} from vpn.conf at each start.
name $2
set VPN_TYPE=$3
auth
mtu $((mss + TCP_IP_HEADERS))
mru $((mss + TCP_IP_HEADERS))
OPTIONS
  ppp_authentication require "$authentication" && ppp_encryption "$4" "$authentication" || return 1
  # The secrets of chap-secrets stand for hashes in the password table. pppd would take them
  # literally, and let in anyone who knows their text; so every challenge is answered by a helper
  # that does look the hash up. PAP logins go by the host's passwords, and count like all others.
  [ "$authentication" != 1 ] || printf 'plugin /usr/lib/fenro/fenro_pap.so\n'
  [ "$authentication" = 1 ] ||
    printf '%s\n' 'plugin winbind.so' "ntlm_auth-helper \"/usr/lib/fenro/fenro-mschap $2\""
  name_servers "$1" 'Mabual DNS' 'Enable Mabual DNS' | sed 's/^/ms-dns /'
  ppp_link_options server
}

# ppp_link_options server|client: what every link has.
ppp_link_options() {
  cat <<OPTIONS
nodefaultroute
nobsdcomp
nodeflate
novj
novjccomp
nologfd
lcp-echo-interval 20
lcp-echo-failure 3
child-timeout $HOOK_SECONDS
ip-up-script /usr/lib/fenro/ppp-$1-up
ip-down-script /usr/lib/fenro/ppp-$1-down
OPTIONS
}

# ppp_await_hook SECTION: waits for the hook of a client's end, which alone knows the bytes for the
# connection log.
ppp_await_hook() {
  local rounds=$((HOOK_SECONDS * 5))
  while [ "$rounds" -gt 0 ] && ppp_hook_runs "$1"; do
    sleep 0.2
    rounds=$((rounds - 1))
  done
}

ppp_hook_runs() {
  local pid
  for pid in $(pids_of sh "$CLIENT_DOWN"); do
    if grep -qszxF -e "$1" "/proc/$pid/cmdline"; then return 0; fi
  done
  return 1
}

# ppp_forget_sessions TYPE: of a server that has ended.
ppp_forget_sessions() {
  /usr/lib/fenro/fenro-connection down "$1" 2>/dev/null ||
    note 'the ends of sessions are not in the log'
}

# ppp_client_settings SECTION: sets host and authentication of a profile.
ppp_client_settings() {
  client_known "$1" || die "[$1] no such profile"
  # The address that was resolved when the profile was saved, else the name as given. It becomes a
  # part of commands and files, so nothing but an address or a strict host name passes.
  host=$(vpn_get "$1" 'Domain IP')
  is_ipv4 "$host" || host=$(vpn_get "$1" 'Server Address')
  is_ipv4 "$host" || is_hostname "$host" || die "[$1] no usable server address"
  authentication=$(vpn_get "$1" Authentcation 2)
  is_number "$authentication" 1 4 || die "[$1] bad \"Authentcation\""
}

# ppp_peer_options SECTION ENCRYPTION: the options of a profile, but for how its link is made.
ppp_peer_options() {
  # shellcheck disable=SC2154 # client_slot sets unit and interface
  cat <<OPTIONS
# Written by ${0##*/} from [$1] of vpn.conf at each start.
unit $unit
ifname $interface
ipparam $1
plugin /usr/lib/fenro/fenro_dial.so
noauth
OPTIONS
  ppp_account "$1" || return 1
  ppp_authentication refuse "$authentication" && ppp_encryption "$2" "$authentication" || return 1
  cat <<OPTIONS
usepeerdns
noipdefault
ipcp-accept-local
ipcp-accept-remote
mtu $LINK_MTU
mru $LINK_MTU
OPTIONS
  ppp_link_options client
}

# The password passes through pipes only, so it is in no argument, no environment and no other file.
ppp_account() {
  local user password
  user=$(vpn_get "$1" Name)
  printf 'user '
  printf '%s' "$user" | ppp_word || return 1
  vpn_get "$1" AccessCode | base64 -d >/dev/null 2>&1 || return 1
  password=$(vpn_get "$1" AccessCode | base64 -d | ppp_word) || return 1
  printf 'password %s\n' "$password"
}
