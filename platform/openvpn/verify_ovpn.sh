#!/bin/sh
# shellcheck shell=dash
# Lets the OpenVPN daemon itself judge a client profile and the key files that come with it.
#
#   verify_ovpn.sh PROFILE ['--ca PATH --cert PATH --key PATH ']
#
# The exit status is 0 for a profile that the daemon can connect with. The daemon reads a copy
# without the lines that an import replaces or that concern this host: nothing is run, loaded or
# written for a profile that has not been accepted yet. It runs as the user "nobody", has no network
# and can write no file, and is stopped as soon as it has read the profile and all keys. Files that
# a profile names and that are missing are left out: they can be added later.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=ovpn_lib.sh
. /usr/lib/fenro/ovpn_lib.sh

SECONDS_TO_JUDGE=20
READY='^Control Channel MTU parms' # said when the keys have been read, before the first packet

# The second argument holds words; anything else than the three options with a readable file each is
# refused.
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

# stand_in: a throwaway key and certificate in place of a PKCS #12 file, which the daemon's copy
# does not have.
stand_in() {
  grep -qx 'line [0-9]*: pkcs12' "$work/left-out" || return 0
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=nobody \
    -keyout "$work/key" -out "$work/cert" 2>/dev/null && cp "$work/cert" "$work/ca"
}

# copy: what the daemon gets to read. The keys are blocks in it.
copy() {
  local name
  set --
  for name in ca cert key; do
    [ ! -e "$work/$name" ] || set -- "$@" "--$name" "$work/$name"
  done
  ovpn_profile check "$@" <"$profile" >"$work/profile" 2>"$work/left-out"
}

# Another user, if there is one here: a user namespace may know root alone.
unprivileged() {
  setpriv --reuid=nobody --regid=nogroup --clear-groups -- true 2>/dev/null && {
    printf '%s\n' --reuid=nobody --regid=nogroup --clear-groups
    return
  }
  say "there is no other user than root here: the daemon judges as root without capabilities"
}

# cause: why the daemon did not get ready. What OpenSSL names by codes is said in words.
cause() {
  local said
  said=$(grep -v '^Exiting due to' "$work/log" | grep -m1 -i 'error' ||
    grep -m1 '^Cannot ' "$work/log")
  case $said in
    *' md too weak:'*) said='a certificate is signed with a digest that is too weak, such as SHA-1: ask for a new one' ;;
    *' key too small:'*) said='the key of a certificate is too short: ask for a new one' ;;
    *' key values mismatch:'* | *'::no certificate assigned:'*) \
      said='the key is not that of the certificate' ;;
    *'routines::no start line:'*)
      said="a certificate or a key is not in PEM format: ${said##*: }"
      ;;
    '') said=$(tail -n 1 "$work/log") ;;
  esac
  printf '%s\n' "${said:-the daemon says nothing}"
}

judge() {
  local daemon running=1 status=1 rounds=$((SECONDS_TO_JUDGE * 20))
  # shellcheck disable=SC2046 # one word a line
  ovpn_jail '' unshare --net -- setpriv $(unprivileged) --no-new-privs --bounding-set=-all \
    --inh-caps=-all \
    "$OVPN_DAEMON" --suppress-timestamps --cd / --config stdin \
    --script-security 0 --dev null --verb 4 --mute 0 --resolv-retry 0 --connect-retry-max 1 \
    <"$work/profile" >"$work/log" 2>"$work/errors" &
  daemon=$!
  # Whether it runs is asked before the look at what it has said: a daemon that ends at once may
  # have said it last.
  while [ "$rounds" -gt 0 ] && [ "$running" -eq 1 ]; do
    kill -0 "$daemon" 2>/dev/null || running=0
    if grep -q "$READY" "$work/log" 2>/dev/null; then status=0 && break; fi
    [ "$running" -eq 0 ] || sleep 0.05
    rounds=$((rounds - 1))
  done
  kill -KILL "$daemon" 2>/dev/null
  wait "$daemon" 2>/dev/null
  cat "$work/errors" >&2
  [ "$status" -eq 0 ] || say "refused: $(cause)"
  return "$status"
}

{ [ $# -ge 1 ] && [ $# -le 2 ] && [ -f "$1" ] && [ -r "$1" ]; } ||
  die "usage: PROFILE ['--ca PATH --cert PATH --key PATH ']"
profile=$1
mkdir -p "$RUN_DIR"
work=$(mktemp -d "$RUN_DIR/verify-ovpn.XXXXXX") || die 'no room for a copy'
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
read_arguments "${2-}" || die 'not arguments of key files'
copy || die "$profile: refused: $(tail -n 1 "$work/left-out")"
stand_in || die 'no stand-in for a key file'
if [ -e "$work/key" ]; then copy || die "$profile: refused: $(tail -n 1 "$work/left-out")"; fi
while read -r line; do say "not judged: $line"; done <"$work/left-out"
judge
