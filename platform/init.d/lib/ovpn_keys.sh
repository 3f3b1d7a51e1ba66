# shellcheck shell=dash
# The keys of the OpenVPN server: its certificate authority, and the certificate that this signs.
# Sourced after vpn_lib.sh.
#
# The authority can be replaced without locking clients out. ca.crt is a bundle meanwhile, the
# authority that signs first:
#   overlap   old, new   profiles from now on trust both; next.key and next.crt are the new one
#   changing  -          the new one is being put in place; each step can be repeated
#   changed   new, old   the server's certificate is signed by the new one
# and then the new one alone. The phase is in the file "rotation", with the overlap in seconds, and
# the times when it began, of the change-over and of the end.

KEYS=/etc/openvpn/keys
ROTATION=$KEYS/rotation
KEY_BITS=2048
VALID_DAYS=3650
RENEW_SECONDS=$((30 * 86400)) # before the end of the server's certificate
NEW_KEYS=$RUN_DIR/openvpn.new-keys # there while a daemon may run with older ones

# signature_digest ALGORITHM: the digest of a signature algorithm, as the tool calls it.
signature_digest() {
  case $1 in
    sha1WithRSAEncryption) printf 'sha1\n' ;;
    sha256WithRSAEncryption) printf 'sha256\n' ;;
    *) return 1 ;;
  esac
}

# make_certificate NAME SIGNER SUBJECT DIGEST EXTENSION...: NAME.key and NAME.crt, signed by the
# authority SIGNER, or by itself without one. The old pair stays until the new one is complete. The
# certificate is removed first and written last. Without it the key is ignored, so that a crash in
# between does no harm.
make_certificate() {
  local key="$KEYS/$1.key" certificate="$KEYS/$1.crt" signer="$2" subject="$3" digest="$4"
  local extension count
  shift 4
  count=$#
  for extension in "$@"; do set -- "$@" -addext "$extension"; done
  shift "$count"
  [ -z "$signer" ] || set -- "$@" -CA "$KEYS/$signer.crt" -CAkey "$KEYS/$signer.key"
  openssl genpkey -quiet -algorithm RSA -pkeyopt "rsa_keygen_bits:$KEY_BITS" -out \
    "$key.new" 2>/dev/null &&
    openssl req -x509 -new -config /dev/null "-$digest" -key "$key.new" -days "$VALID_DAYS" -subj \
      "$subject" \
      -addext 'subjectKeyIdentifier=hash' "$@" -out "$certificate.new" 2>/dev/null &&
    chmod 644 "$certificate.new" && sync "$key.new" "$certificate.new" &&
    { [ "$certificate" != "$KEYS/myserver.crt" ] || : >"$NEW_KEYS"; } &&
    rm -f "$certificate" && mv -f "$key.new" "$key" && mv -f "$certificate.new" "$certificate" &&
    sync "$KEYS" && return
  rm -f "$key.new" "$certificate.new"
  return 1
}

# make_authority NAME DIGEST [SUFFIX]: one that signs itself. The suffix keeps the names of two
# authorities apart, since clients look for a signer by its name.
make_authority() {
  make_certificate "$1" '' "/CN=$(server_name ${3:+36}) OpenVPN CA${3:+ $3}" "$2" \
    'basicConstraints=critical,CA:TRUE' 'keyUsage=critical,keyCertSign,cRLSign'
}

# Clients ask for exactly these uses.
make_server_certificate() {
  make_certificate myserver ca "/CN=$(server_name)" "$1" 'basicConstraints=critical,CA:FALSE' \
    'keyUsage=critical,digitalSignature,keyEncipherment' 'extendedKeyUsage=serverAuth'
}

# server_name [BYTES]: the host's name, cut to what a certificate can hold.
server_name() {
  local host
  host=$(head -c "${1:-48}" /proc/sys/kernel/hostname | tr -cd 'A-Za-z0-9.-')
  printf '%s\n' "${host:-appliance}"
}

# first_certificate FILE: the one that signs, of a bundle.
first_certificate() { openssl x509 -in "$1" 2>/dev/null; }

# has_key NAME: there is a certificate with its key.
has_key() {
  local public
  [ -s "$KEYS/$1.crt" ] && [ -s "$KEYS/$1.key" ] &&
    public=$(openssl x509 -in "$KEYS/$1.crt" -noout -pubkey 2>/dev/null) &&
    [ "$public" = "$(openssl pkey -in "$KEYS/$1.key" -pubout 2>/dev/null)" ]
}

# trusted FILE: the authority that signs. Without a rotation this is the whole file, which may be an
# administrator's chain.
trusted() {
  if [ -n "${phase-}" ]; then first_certificate "$1"; else cat "$1"; fi
}

# certificate_usable NAME [SIGNER]: there is one, in force, with its key, and the authority that
# signs now has signed it. The strength of its digest is not checked: an administrator has chosen
# it.
certificate_usable() {
  has_key "$1" && trusted "$KEYS/${2:-$1}.crt" |
    openssl verify -auth_level 0 -CAfile /dev/stdin "$KEYS/$1.crt" >/dev/null 2>&1
}
server_usable() { certificate_usable myserver ca; }

# is_early NAME: the clock is before the begin of this certificate, and so is wrong.
is_early() {
  local begin
  begin=$(openssl x509 -in "$KEYS/$1.crt" -noout -startdate 2>/dev/null) &&
    begin=$(date -d "${begin#*=}" +%s 2>/dev/null) && [ "$begin" -gt "$(date +%s)" ]
}
# shellcheck disable=SC2034 # for the reader
EARLY='the clock is before the begin of the certificate authority: set the date'

# A time in seconds, of at most 11 digits.
is_moment() {
  case $1 in '' | *[!0-9]* | 0* | ????????????*) return 1 ;; esac
}

# Sets phase, overlap, begun, change and end of the rotation. phase is empty without one, and
# "damaged" where the file cannot be understood.
read_rotation() {
  local name value
  phase='' overlap='' begun='' change='' end=''
  [ -s "$ROTATION" ] || return 0
  while IFS='=' read -r name value; do
    case $name in
      phase) phase=$value ;;
      overlap) overlap=$value ;;
      begun) begun=$value ;;
      change) change=$value ;;
      end) end=$value ;;
    esac
  done <"$ROTATION"
  case $phase in overlap | changing | changed) ;; *) phase=damaged ;; esac
  is_moment "$overlap" && is_moment "$begun" && is_moment "$change" && is_moment "$end" ||
    phase=damaged
}

rotation_text() {
  printf 'phase=%s\noverlap=%s\nbegun=%s\nchange=%s\nend=%s\n' \
    "$phase" "$overlap" "$begun" "$change" "$end"
}
write_rotation() { write_file "$ROTATION" rotation_text; }

bundle_text() {
  local name
  for name in "$@"; do first_certificate "$name" || return 1; done
}

# write_bundle FILE...: ca.crt is the first certificate of each.
write_bundle() {
  [ "$(bundle_text "$@")" = "$(cat "$KEYS/ca.crt" 2>/dev/null)" ] ||
    { write_file "$KEYS/ca.crt" bundle_text "$@" && chmod 644 "$KEYS/ca.crt"; }
}

# Forgets a new authority whose rotation has not begun.
forget_next() {
  [ ! -e "$KEYS/next.crt" ] || write_bundle "$KEYS/ca.crt"
  rm -f "$KEYS/next.key" "$KEYS/next.crt"
}

# begin_rotation DIGEST SECONDS: the server changes over after that time. Profiles contain both
# authorities before the rotation begins to count downloads.
begin_rotation() {
  make_authority next "$1" "$(date -u +%Y%m%d-%H%M%S)" &&
    write_bundle "$KEYS/ca.crt" "$KEYS/next.crt" && {
    overlap=$2 begun=$(date +%s)
    change=$((begun + overlap)) end=$((begun + 2 * overlap)) phase=overlap
    write_rotation
  } && return
  forget_next
  return 1
}

# change_over DIGEST: the new authority signs from now on. The next run finishes one that was
# killed.
change_over() {
  local old="$KEYS/ca.crt"
  phase=changing
  write_rotation || return 1
  first_certificate "$old" >/dev/null || old='' # the new one works without it
  if [ "$(first_certificate "$KEYS/ca.crt")" != "$(first_certificate "$KEYS/next.crt")" ]; then
    write_file "$KEYS/ca.key" cat "$KEYS/next.key" &&
      write_bundle "$KEYS/next.crt" ${old:+"$old"} || return 1
  fi
  server_usable || make_server_certificate "$1" || return 1
  phase=changed end=$(($(date +%s) + overlap))
  write_rotation && rm -f "$KEYS/next.key" "$KEYS/next.crt"
}

# finish_change DIGEST: finishes an interrupted change-over. Without the new authority's key the
# present one stays.
finish_change() {
  if has_key next; then change_over "$1"; else end_rotation; fi
}

# Old certificates are no longer trusted.
end_rotation() {
  if first_certificate "$KEYS/ca.crt" >/dev/null; then
    write_bundle "$KEYS/ca.crt" || return 1
  fi
  rm -f "$ROTATION" "$KEYS/next.key" "$KEYS/next.crt"
}

# settle_rotation DIGEST: finishes an interrupted run, and changes over or ends the rotation when
# that is due. Called only before the server starts, since it reads its keys then.
settle_rotation() {
  read_rotation
  case $phase in
    '') forget_next ;;
    overlap)
      certificate_usable next || { is_early next || end_rotation; return; }
      if [ "$(date +%s)" -ge "$change" ] || ! { certificate_usable ca || is_early ca; }; then
        change_over "$1"
      else
        write_bundle "$KEYS/ca.crt" "$KEYS/next.crt"
      fi
      ;;
    changing) finish_change "$1" ;;
    changed)
      rm -f "$KEYS/next.key" "$KEYS/next.crt"
      [ "$(date +%s)" -lt "$end" ] || end_rotation
      ;;
  esac
}

# make_keys DIGEST: makes missing keys, and a new certificate for the server when its end is near. A
# new authority needs a new server certificate; "failure" says what went wrong.
make_keys() {
  mkdir -p "$KEYS" && chmod 700 "$KEYS" || return 1
  failure='the rotation of the certificate authority can not be finished'
  # On a full disk, for example, the present certificate stays in use.
  settle_rotation "$1" || { has_key myserver; return; }
  # Replacing the authority would lock out all clients. The present keys work again as soon as the
  # clock is right.
  if has_key ca && is_early ca; then
    failure=$EARLY
    has_key myserver
    return
  fi
  if ! certificate_usable ca; then
    failure='the certificate authority can not be made'
    make_authority ca "$1" || return 1
  fi
  if server_usable; then
    # A certificate that is valid for some more days is better than none.
    openssl x509 -in "$KEYS/myserver.crt" -noout -checkend "$RENEW_SECONDS" >/dev/null 2>&1 ||
      make_server_certificate "$1" || server_usable
    return
  fi
  # shellcheck disable=SC2034 # for the reader
  failure='the certificate of the server can not be made'
  make_server_certificate "$1"
}
