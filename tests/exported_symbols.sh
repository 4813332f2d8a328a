#!/usr/bin/env bash
# exported_symbols.sh - the shared library offers exactly the functions that the public headers declare.
#
#   exported_symbols.sh LIBRARY SONAME HEADER...
#
# Too much exported binds hosts to what is ours; too little is a host that does not link.
set -euo pipefail
library=$1 soname=$2
shift 2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Declarations are marked KAVO_EXPORT; comments go first, since prose may name a function too.
cat "$@" | tr '\n' ' ' | sed -E 's#/\*([^*]|\*+[^*/])*\*+/# #g' |
  grep -oE 'KAVO_EXPORT [^();]*[ *](kavo|dns)_[a-z0-9_]+ *[(;]' |
  sed -E 's/.*[ *]((kavo|dns)_[a-z0-9_]+) *[(;]$/\1/' | LC_ALL=C sort -u >"$work/declared"

# Of what the library defines, the names of its symbol versions (type A) are no symbols of ours.
nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $2, $3 }' >"$work/defined"
awk '{ print $2 }' "$work/defined" | LC_ALL=C sort -u >"$work/exported"

status=0
report() {
  printf '%s:\n' "$1"
  sed 's/^/  /' "$2"
  status=1
}

LC_ALL=C comm -13 "$work/declared" "$work/exported" >"$work/surplus"
LC_ALL=C comm -23 "$work/declared" "$work/exported" >"$work/lacking"
awk '$1 != "T" { print $2, "of type", $1 }' "$work/defined" >"$work/data"
[[ -s $work/declared ]] || report 'no declaration found in the headers' /dev/null
if [[ -s $work/surplus ]]; then report 'exported, and declared in no public header' "$work/surplus"; fi
if [[ -s $work/lacking ]]; then report 'declared in a public header, and not exported' "$work/lacking"; fi
if [[ -s $work/data ]]; then report 'exported, and no function' "$work/data"; fi

readelf -d "$library" | sed -nE 's/.*\(SONAME\).*\[(.*)\]/\1/p' >"$work/soname"
if [[ $(cat "$work/soname") != "$soname" ]]; then report "the library calls itself, instead of $soname" "$work/soname"; fi
exit "$status"
