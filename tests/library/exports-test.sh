#!/bin/sh
# The library exports what the one committed list names, and nothing else; the traced functions have
# the signature texts of the other, which those who read its log search for: as GCC 12 spells them,
# or as the compiler in question does, by the rules below.
# usage: exports-test.sh LIBRARY EXPORTS SIGNATURES COMPILER
set -eu
actual=$(mktemp)
spelled=$(mktemp)
trap 'rm -f "$actual" "$spelled"' EXIT
qualified_maps='s/(\([A-Za-z]*Map_t\)/(NOndaroPAL::CSystemConfigImpl::\1/'
spaced_pointers='s/[*&][*&,)]*/ &/g; s/\* \(Ondaro\)/*\1/'
case $4 in
  GNU-11*) spelling="$qualified_maps; s/std::string/string/g; s/NOndaroAPI::Ipc\(EventHandler\)/Ipc\1/" ;;
  Clang-14*) spelling="$qualified_maps; $spaced_pointers" ;;
  Clang-16*) spelling="$spaced_pointers; /^[a-z ]*NOndaroAPI/s/\([(, ]\)NOndaroAPI::I/\1I/g" ;;
  *) spelling= ;;
esac
sed "$spelling" "$3" | LC_ALL=C sort >"$spelled"
# A count of 64 bits is an unsigned long long where a word has 32.
nm -D --defined-only "$1" | sed 's/@.*//' | awk '{print $3}' | grep -v '^ONDARO_1$' | c++filt \
  | sed 's/unsigned long long/unsigned long/' | LC_ALL=C sort >"$actual"
diff -u "$2" "$actual"
strings "$1" | grep -Fxf "$spelled" | LC_ALL=C sort -u >"$actual"
diff -u "$spelled" "$actual"
