#!/usr/bin/env bash
# called_operations.sh - every operation of the public header is called through the shared library, from C and from C++.
#
#   called_operations.sh HEADER C-PROGRAM C++-PROGRAM...
#
# Which operations a program calls is read off its undefined symbols. The C program must call all of them itself, the
# C++ programs all of them together.
set -euo pipefail
header=$1 c_program=$2
shift 2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Declarations are marked KAVO_EXPORT; comments go first, since prose may name an operation too.
tr '\n' ' ' <"$header" | sed -E 's#/\*([^*]|\*+[^*/])*\*+/# #g' |
  grep -oE 'KAVO_EXPORT [^();]*[ *]kavo_[a-z0-9_]+ *[(;]' |
  sed -E 's/.*[ *](kavo_[a-z0-9_]+) *[(;]$/\1/' | LC_ALL=C sort -u >"$work/declared"

called_by() { nm -D -u "$@" | awk '$1 == "U" { sub(/@.*/, "", $2); print $2 }' | LC_ALL=C sort -u; }
called_by "$c_program" >"$work/from_C"
called_by "$@" >"$work/from_C++"

status=0
if [[ ! -s $work/declared ]]; then
  echo 'no declaration found in the header'
  status=1
fi
for language in C C++; do
  LC_ALL=C comm -23 "$work/declared" "$work/from_$language" >"$work/lacking"
  if [[ -s $work/lacking ]]; then
    printf 'declared, and not called by any test from %s:\n' "$language"
    sed 's/^/  /' "$work/lacking"
    status=1
  fi
done
exit "$status"
