# Copies an OpenVPN profile as far as it tells how a tunnel is made: of all other options the name
# alone, nothing of comments and of what is inside the profile, which is certificates, keys and
# accounts.
BEGIN {
  BLANK = "(blanked)"
  split("auth cipher client comp-lzo compress connect-retry connect-timeout data-ciphers data-ciphers-fallback dev " \
        "dev-type fragment keepalive mssfix ncp-ciphers nobind persist-key persist-tun ping ping-exit ping-restart port " \
        "proto pull redirect-gateway remote remote-cert-tls reneg-sec resolv-retry route script-security tls-cipher " \
        "tls-client tls-version-min topology tun-mtu verb", names, " ")
  for (i in names) harmless[names[i]] = 1
}

/^[ \t]*([#;]|\r?$)/ { next }

closing != "" {
  if (index($0, closing) > 0) {
    print closing
    closing = ""
  }
  next
}

/^[ \t]*<[a-z0-9-]+>/ {
  name = $1
  gsub(/[<>\r]/, "", name)
  print "<" name ">"
  if (name == "connection") next
  print BLANK
  closing = "</" name ">"
  next
}

{ sub(/\r$/, "") }

$1 in harmless || $1 == "</connection>" {
  print
  next
}

{ print $1 (NF > 1 ? " " BLANK : "") }
