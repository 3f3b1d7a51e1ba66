#!/bin/sh
# shellcheck shell=dash
# Lets the OpenVPN daemon itself judge a client profile and the key files that come with it.
#
#   verify_ovpn.sh PROFILE ['--ca PATH --cert PATH --key PATH ']
#
# The exit status is 0 for a profile that the daemon could go out with. It is started with a copy in which those lines
# are missing that an import replaces or that concern this host: nothing is run, loaded or written for a profile that
# nobody has accepted yet. It gets neither a network nor root's rights, and is ended as soon as it has read the profile
# and all keys. Files that a profile names and that are not there yet are left out: they can be brought later.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=ovpn_lib.sh
. /usr/lib/fenro/ovpn_lib.sh

SECONDS_TO_JUDGE=20
READY='^Control Channel MTU parms' # said when the keys have been read, before the first packet

# Of these options an import keeps nothing, or they would have the daemon act on this host.
LEFT_OUT='up down up-restart daemon inetd log log-append syslog status verb mute user group chroot cd writepid plugin
  route-up route-pre-down ipchange tls-verify learn-address client-connect client-disconnect auth-user-pass-verify
  tls-crypt-v2-verify client-crresponse script-security iproute config engine providers
  pkcs11-providers replay-persist tls-export-cert genkey mktun rmtun tmp-dir askpass http-proxy-user-pass
  http-proxy socks-proxy management management-client management-client-user management-client-group management-hold
  management-signal management-up-down management-query-passwords management-query-proxy management-query-remote
  management-external-key management-external-cert management-forget-disconnect management-log-cache
  bind dev dev-type dev-node route-noexec lport keysize redirect-gateway block-outside-dns ncp-disable lladdr
  cipher data-ciphers ncp-ciphers auth-user-pass resolv-retry nice mlock'
# These name a file, which is kept if it comes with the profile as a block.
FILES='dh pkcs12 extra-certs tls-auth tls-crypt tls-crypt-v2 crl-verify secret'

# The second argument holds words; anything else than the three options with a readable file each is refused.
read_arguments() {
  set -f
  # shellcheck disable=SC2086 # words on purpose
  set -- $1
  while [ $# -gt 0 ]; do
    case $1 in --ca | --cert | --key) ;; *) return 1 ;; esac
    case ${2-} in /*) [ -f "$2" ] && [ -r "$2" ] || return 1 ;; *) return 1 ;; esac
    cp "$2" "$work/${1#--}" || return 1
    shift 2
  done
}

# The copy. A block stays or goes as a whole; what can't be taken apart with certainty is refused: a "<" within a block, a
# line that does not begin with an option's plain name. Prints what needs a stand-in.
sift() {
  OUT="$LEFT_OUT" FILES="$FILES" COPY="$work/profile" awk "$OVPN_READER"'
    BEGIN {
      count = split(ENVIRON["OUT"], row, /[ \n]+/); for (i = 1; i <= count; ++i) out[row[i]]
      count = split(ENVIRON["FILES"], row, /[ \n]+/); for (i = 1; i <= count; ++i) file[row[i]]
      copy = ENVIRON["COPY"]
    }
    { before = block }
    before == "" && length($0) > 255 { exit bad = 1 } # more than the daemon reads of a line
    option() {
      if (name !~ /^[A-Za-z0-9-]+$/) exit bad = 1
      if (name == "auth-user-pass" || name == "pkcs12") print name
      if (!(name in out) && !(name in file) && !(name == "tls-cipher" && toupper(word[1]) == "NONE")) print >copy
      next
    }
    before != "" && block != "" && /</ { exit bad = 1 }
    before == "" && block == "auth-user-pass" { print block }
    before != "" || block != "" { if (!((before == "" ? block : before) in out)) print >copy; next }
    /<\/?connection>/ { print >copy }
    END { exit bad || block != "" }' "$1"
}

# stand_in NEEDS: for what the profile names and that is not there, a certificate of nobody and an account.
stand_in() {
  printf 'nobody\nnothing\n' >"$work/account"
  case " $1 " in *' auth-user-pass '*) printf 'auth-user-pass %s\n' "$work/account" >>"$work/profile" ;; esac
  case " $1 " in *' pkcs12 '*) ;; *) return 0 ;; esac
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=nobody \
    -keyout "$work/nobody.key" -out "$work/nobody.crt" 2>/dev/null &&
    printf '%s %s\n' ca "$work/nobody.crt" cert "$work/nobody.crt" key "$work/nobody.key" >>"$work/profile"
}

judge() {
  local daemon status=1 rounds=$((SECONDS_TO_JUDGE * 20))
  unshare --net -- setpriv --no-new-privs --bounding-set=-all --inh-caps=-all \
    "$OVPN_DAEMON" --log "$work/log" --suppress-timestamps --cd "$work" --config "$work/profile" "$@" \
    --script-security 0 --dev null --verb 4 --mute 0 --resolv-retry 0 --connect-retry-max 1 </dev/null >/dev/null 2>&1 &
  daemon=$!
  while [ "$rounds" -gt 0 ]; do
    if grep -q "$READY" "$work/log" 2>/dev/null; then status=0 && break; fi
    kill -0 "$daemon" 2>/dev/null || break
    sleep 0.05
    rounds=$((rounds - 1))
  done
  kill -KILL "$daemon" 2>/dev/null
  wait "$daemon" 2>/dev/null
  [ "$status" -eq 0 ] || note "refused: $(grep -m1 -i 'error' "$work/log" 2>/dev/null)"
  return "$status"
}

{ [ $# -ge 1 ] && [ $# -le 2 ] && [ -f "$1" ] && [ -r "$1" ]; } || die "usage: PROFILE ['--ca PATH --cert PATH --key PATH ']"
work=$(mktemp -d /tmp/verify-ovpn.XXXXXX) || die 'no room for a copy'
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
read_arguments "${2-}" || die 'not arguments of key files'
needs=$(sift "$1") || die "$1: not a profile"
# shellcheck disable=SC2086 # words
stand_in "$(printf '%s ' $needs)" || die 'no stand-in for a key file'
set --
for name in ca cert key; do
  [ ! -e "$work/$name" ] || set -- "$@" "--$name" "$work/$name"
done
judge "$@"
