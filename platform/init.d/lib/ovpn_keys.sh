# shellcheck shell=dash
# The keys of the OpenVPN server: its own certificate authority, and the certificate that this
# signs. Read by "." behind vpn_lib.sh.

KEYS=/etc/openvpn/keys
KEY_BITS=2048
VALID_DAYS=3650

# signature_digest ALGORITHM: the digest of a signature algorithm, as the tool calls it.
signature_digest() {
  case $1 in
    sha1WithRSAEncryption) printf 'sha1\n' ;;
    sha256WithRSAEncryption) printf 'sha256\n' ;;
    *) return 1 ;;
  esac
}

# make_certificate NAME SUBJECT DIGEST EXTENSION...: NAME.key and NAME.crt, signed by the authority
# if there is one, else by itself. The certificate comes last: without it the key counts for
# nothing, so that a crash in between costs nothing.
make_certificate() {
  local key="$KEYS/$1.key" certificate="$KEYS/$1.crt" subject="$2" digest="$3" extension count
  shift 3
  rm -f "$certificate"
  count=$#
  for extension in "$@"; do set -- "$@" -addext "$extension"; done
  shift "$count"
  if certificate_usable ca; then set -- "$@" -CA "$KEYS/ca.crt" -CAkey "$KEYS/ca.key"; fi
  openssl genpkey -quiet -algorithm RSA -pkeyopt "rsa_keygen_bits:$KEY_BITS" -out \
    "$key.new" 2>/dev/null &&
    sync "$key.new" && mv -f "$key.new" "$key" &&
    openssl req -x509 -new -config /dev/null "-$digest" -key "$key" -days "$VALID_DAYS" -subj \
      "$subject" \
      -addext 'subjectKeyIdentifier=hash' "$@" -out "$certificate.new" 2>/dev/null &&
    chmod 644 "$certificate.new" && sync "$certificate.new" &&
      mv -f "$certificate.new" "$certificate"
}

# certificate_usable NAME: there is one, in force, with its key, and the authority has signed it.
# Whether its digest is strong is not asked: that was chosen.
certificate_usable() {
  [ -s "$KEYS/$1.crt" ] && [ -s "$KEYS/$1.key" ] &&
    openssl verify -auth_level 0 -CAfile "$KEYS/ca.crt" "$KEYS/$1.crt" >/dev/null 2>&1 &&
    [ "$(openssl x509 -in "$KEYS/$1.crt" -noout -pubkey 2>/dev/null)" = \
      "$(openssl pkey -in "$KEYS/$1.key" -pubout 2>/dev/null)" ]
}

# make_keys DIGEST: what is missing. A new authority needs a new server certificate; "failure" tells
# what went wrong.
make_keys() {
  local host
  host=$(head -c 48 /proc/sys/kernel/hostname | tr -cd 'A-Za-z0-9.-')
  mkdir -p "$KEYS" && chmod 700 "$KEYS" || return 1
  if ! certificate_usable ca; then
    failure='the certificate authority can not be made'
    make_certificate ca "/CN=${host:-appliance} OpenVPN CA" "$1" \
      'basicConstraints=critical,CA:TRUE' \
      'keyUsage=critical,keyCertSign,cRLSign' || return 1
  fi
  certificate_usable myserver && return
  # shellcheck disable=SC2034 # for the reader
  failure='the certificate of the server can not be made'
  # Clients ask for exactly these uses.
  make_certificate myserver "/CN=${host:-appliance}" "$1" 'basicConstraints=critical,CA:FALSE' \
    'keyUsage=critical,digitalSignature,keyEncipherment' 'extendedKeyUsage=serverAuth'
}
