#!/usr/bin/env bash
# Adds a made-up protocol to a copy of the tables. The lists that the build makes must have it, and
# the sources that no longer compile must be those that CONTRIBUTING's "Add a protocol" names.
#
#   protocol_guide_test.sh TREE BUILD
set -euo pipefail
tree=$1 build=$2
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
mkdir "$copy/base"
cp "$tree"/base/*.h "$tree/base/protocol_tables.cpp" "$copy/base"

sed -i 's/^  WIREGUARD_SERVER_TYPE = .*/&\n  MADEUP_SERVER_TYPE = 64,/
  s/^  WIREGUARD_CLIENT_TYPE = .*/&\n  MADEUP_CLIENT_TYPE = 131072,/' "$copy/base/types.h"
# The row of Drovik once more, under the new name.
awk '
  /\{\.server = / { row = ""; inside = 1 }
  inside { row = row $0 "\n" }
  { print }
  inside && /\},$/ { inside = 0; if (row ~ /DROVIK_SERVER_TYPE/) made = row }
  /\{\.server = WIREGUARD/ { last = 1 }
  last && /\},$/ {
    gsub(/DROVIK/, "MADEUP", made)
    gsub(/drovik/, "madeup", made)
    gsub(/Sessions::MADEUP/, "Sessions::DROVIK", made)
    printf "%s", made
    last = 0
  }
' "$tree/base/tunnel.h" >"$copy/base/tunnel.h"

bad=0
complain() { printf '%s\n' "$*" >&2 && bad=1; }

g++ -std=c++20 -I"$copy" "$copy/base/protocol_tables.cpp" -o "$copy/tables"
for form in shell typescript; do
  "$copy/tables" "$form" >"$copy/$form"
done
for list in CLIENT_TUNNELS SERVER_TUNNELS LOGGED_CLIENTS SESSION_KINDS; do
  grep -q "^$list=.*\(MADEUP\|64:\)" "$copy/shell" || complain "$list has no row for a new protocol"
done
grep -q '^  madeup: ' "$copy/typescript" || complain 'protocols.ts has no row for a new protocol'

# Each is compiled as the build does it, with the copies in front.
guide=$(sed -n '/^## Add a protocol/,$p' "$tree/CONTRIBUTING.md")
cd "$build"
while IFS= read -r source; do
  mapfile -t command < <(
    python3 - "$source" <<'PY'
import json, shlex, sys
for row in json.load(open("compile_commands.json")):
    if row["file"] == sys.argv[1]:
        words = shlex.split(row["command"])
        first = 1 if words[0].endswith("ccache") else 0
        print("\n".join(words[first : words.index("-o")]))
        break
PY
  )
  ((${#command[@]})) || continue
  "${command[0]}" -I"$copy" "${command[@]:1}" -fsyntax-only "$source" 2>"$copy/errors" && continue
  [[ $guide == *"${source##*/}"* ]] ||
    complain "CONTRIBUTING does not name ${source#"$tree/"}: $(head -n 3 "$copy/errors")"
  printf '%s\n' "${source##*/}" >>"$copy/refused"
done < <(grep -rlE 'TUNNELS|Sessions::|sessions_of|CLASSES' "$tree/src" "$tree/platform" \
  --include='*.cpp')
grep -qx classes.cpp "$copy/refused" ||
  complain 'classes.cpp compiles without the classes of a new protocol'
exit "$bad"
