# shellcheck shell=dash
# What the scripts of the PPP protocols share: quoting for option files, authentication and encryption, the kernel.
# Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034,SC2154 # some names are for the reader, others from vpn_lib.sh

PPP_DIR=/etc/config/ppp
PEERS_DIR=$PPP_DIR/peers
CLIENT_MARKS=$RUN_DIR/tunnels # a file for each client tunnel that is up
PPP_WORD_MAX=255              # pppd cuts names and passwords behind it

# Standard input as one word of an option file. Everything but plain characters becomes an octal escape, so no name or
# password can end the word, begin a comment or bring in another option. Fails for what pppd cannot hold.
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

# ppp_authentication VERB METHOD: "require" asks the method of the peer, "refuse" leaves only it for ourselves.
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

# ppp_encryption LEVEL METHOD. MPPE takes its keys from an MS-CHAP login; pppd ends a link that asks for it with another.
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

# ppp_slot SECTION: sets slot and unit of the client profile that the section holds.
ppp_slot() {
  local base
  case $1 in
    PPTP_CLIENT*) slot=${1#PPTP_CLIENT} base=1000 ;;
    *) return 1 ;;
  esac
  is_slot "$slot" || return 1
  unit=$((base + slot))
}

# Empties what a tunnel that is up has written. A key that is empty already is left alone: each write costs a flush.
ppp_clear_status() {
  local key
  for key in LocalIP RemoteIP 'Real Address' 'DNS Server'; do
    [ -z "$(vpn_get "$1" "$key")" ] || vpn_set "$1" "$key" ''
  done
  [ "$(vpn_get "$1" 'Time Stamp' 0)" = 0 ] || vpn_set "$1" 'Time Stamp' 0
}

# ppp_edge SECTION KEY INTERFACE LOCAL REMOTE: runs the executable under "Up" or "Down" on its own, if there is one. It
# takes no arguments, and of the environment only what it may want to know.
ppp_edge() {
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
  setsid -f env -i PATH="$PATH" INTERFACE="$3" LOCAL_IP="$4" REMOTE_IP="$5" "$program" </dev/null >/dev/null 2>&1
}

# ppp_client_down SECTION: the falling edge. Whoever takes the mark away first runs it, so it runs once.
ppp_client_down() {
  local local_ip remote_ip
  local_ip=$(vpn_get "$1" LocalIP)
  remote_ip=$(vpn_get "$1" RemoteIP)
  ppp_clear_status "$1"
  if rm "$CLIENT_MARKS/$1" 2>/dev/null; then ppp_edge "$1" Down "ppp$unit" "$local_ip" "$remote_ip"; fi
}
