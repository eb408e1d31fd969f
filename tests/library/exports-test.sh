#!/bin/sh
# The library exports what the committed list names, and nothing else.
# usage: exports-test.sh LIBRARY LIST
set -eu
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
nm -D --defined-only "$1" | sed 's/@.*//' | awk '{print $3}' | grep -v '^ONDARO_1$' | c++filt \
  | LC_ALL=C sort >"$actual"
diff -u "$2" "$actual"
