#!/bin/sh
# The library exports what the one committed list names, and nothing else; the traced functions have
# the signature texts of the other, which those who read its log search for.
# usage: exports-test.sh LIBRARY EXPORTS SIGNATURES
set -eu
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
nm -D --defined-only "$1" | sed 's/@.*//' | awk '{print $3}' | grep -v '^ONDARO_1$' | c++filt \
  | LC_ALL=C sort >"$actual"
diff -u "$2" "$actual"
strings "$1" | grep -Fxf "$3" | LC_ALL=C sort -u >"$actual"
diff -u "$3" "$actual"
