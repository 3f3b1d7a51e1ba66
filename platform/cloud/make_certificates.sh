#!/usr/bin/env bash
# make_certificates.sh FOLDER DOMAIN: creates a new certificate authority in FOLDER (ca.pem) and
# the certificates that it signs: "server" for every cloud host below DOMAIN, "other" for a host
# outside DOMAIN, and "expired". "self" is self-signed.
set -euo pipefail
FOLDER=$1 DOMAIN=$2
cd "$FOLDER"
umask 077

cloud_hosts() {
  local service stage cloud
  for service in org-center account-center auth-connector pelmar-api; do
    for stage in alpha production qa-nr dev; do
      for cloud in global china; do
        printf '%s.%s.%s.%s\n' "$service" "$stage" "$cloud" "$DOMAIN"
      done
    done
  done
  printf 'pelmar-api.sy.global.%s\n' "$DOMAIN"
}

# sign NAME SUBJECT_ALT_NAME OPTION…
sign() {
  local name=$1 names=$2
  shift 2
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$name" -keyout \
    "$name.key" -out "$name.csr"
  openssl x509 -req -in "$name.csr" -extfile <(printf 'subjectAltName=%s\n' "$names") -out \
    "$name.pem" "$@"
}

cloud_hosts >hosts
mapfile -t HOSTS <hosts
NAMES=$(printf ',DNS:%s' "${HOSTS[@]}")
NAMES=${NAMES:1}
{
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj \
    "/CN=cloud authority" \
    -keyout ca.key -out ca.pem
  sign server "$NAMES" -CA ca.pem -CAkey ca.key -CAcreateserial -days 30
  sign other DNS:elsewhere.example -CA ca.pem -CAkey ca.key -CAcreateserial -days 30
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=expired \
    -keyout expired.key -out expired.csr
  : >index.txt
  openssl ca -batch -config <(printf '%s\n' '[ca]' 'default_ca=d' '[d]' 'database=index.txt' \
    'new_certs_dir=.' \
    'default_md=sha256' 'policy=p' 'rand_serial=yes' 'email_in_dn=no' 'x509_extensions=x' '[p]' \
      'commonName=supplied' \
    '[x]' "subjectAltName=$NAMES") -cert ca.pem -keyfile ca.key -in expired.csr -out expired.pem \
      -notext \
    -startdate 20200101000000Z -enddate 20200201000000Z
  sign self "$NAMES" -signkey self.key -days 30
} >certificates.log 2>&1
