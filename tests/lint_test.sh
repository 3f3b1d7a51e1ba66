#!/usr/bin/env bash
# Plants one fault of each kind in a copy of the tree: script/lint must find nothing before, and
# name each afterwards.
#
#   lint_test.sh TREE BUILD
set -euo pipefail
tree=$1 build=$2
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
tar -C "$tree" --exclude=./build --exclude=./.git --exclude=./web --exclude=./tests/fuzz/corpus \
  -cf - . | tar -C "$copy" -xf -
mkdir -p "$copy/build/release"
sed "s|\"$tree/|\"$copy/|g" "$build/compile_commands.json" \
  >"$copy/build/release/compile_commands.json"

bad=0
complain() { printf '%s\n' "$*" >&2 && bad=1; }

# refuses CHECK WORDS: the check fails, and says WORDS.
refuses() {
  if "$copy/script/lint" "$1" >"$copy/found" 2>&1; then
    complain "\"$1\" finds nothing of: $2"
  elif ! grep -qF -- "$2" "$copy/found"; then
    complain "\"$1\" does not say \"$2\": $(head -n 3 "$copy/found")"
  fi
}

"$copy/script/lint" includes words lists >"$copy/found" 2>&1 || complain "a fault before any was planted: $(cat "$copy/found")"

planted=$copy/src/ormel/base/text.cpp
cp "$planted" "$copy/before"
printf '#include "ormel/web/serve.h"\n' >>"$planted"
refuses includes 'base may not include "ormel/web/serve.h"'
cp "$copy/before" "$planted"
printf '// What the caller is%s.\n' ' told' >>"$planted"
refuses words src/ormel/base/text.cpp
cp "$copy/before" "$planted"
for forgotten in base/forgotten.cpp platform/init.d/forgotten.sh doc/man/forgotten.8.scd; do
  : >"$copy/$forgotten"
  refuses lists "$forgotten"
  rm "$copy/$forgotten"
done
printf 'base/grants.cpp\tno such code\t\t-\n' >>"$copy/script/lib/mutate.table"
refuses lists 'no "no such code"'
# A name of another form, as clang-tidy sees it with the rules of the tree.
named() {
  clang-tidy-14 --quiet --checks='-*,readability-identifier-naming' "$1" -- -std=c++20 -I"$copy" \
    >"$copy/found" 2>/dev/null
}
named "$copy/base/random_name.cpp" ||
  complain "a name is refused before one was planted: $(cat "$copy/found")"
printf 'int FormOfAnother() { return 0; }\n' >>"$copy/base/random_name.cpp"
named "$copy/base/random_name.cpp" && complain 'clang-tidy finds no name of another form'
"$copy/script/lint" no-such-check >"$copy/found" 2>&1 && complain 'a check that does not exist is fine'
exit "$bad"
