# Copies text without its secrets, for an archive that goes to strangers. In doubt it takes away too
# much: what follows the name of a secret goes to the end of its line, so that no way of quoting
# brings a piece of it through. The names are the variable NAME of secret_names.awk, which is read
# first.
BEGIN {
  BLANK = "(blanked)"
  ASSIGNMENT = "(" NAME ")[a-z0-9_ -]*[\"'\\\\]*[ \t]*[:=]"
  KEY_BEGIN = "-----begin .*(private key|static key)"
  KEY_END = "-----end .*(private key|static key)"
}

{ lower = tolower($0) }

inside {
  if (lower ~ KEY_END) {
    inside = 0
    print BLANK
  }
  next
}

match(lower, KEY_BEGIN) {
  inside = lower !~ KEY_END
  print substr($0, 1, RSTART - 1) BLANK
  next
}

match(lower, ASSIGNMENT) {
  print substr($0, 1, RSTART + RLENGTH - 1) " " BLANK
  next
}

{ print }
