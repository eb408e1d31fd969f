#!/bin/sh
# Each public header compiles on its own; the C interface also as C99 and C11.
# usage: headers-test.sh C-COMPILER C++-COMPILER INCLUDE-DIRECTORY FLAGS...
set -eu
cc=$1 cxx=$2 include=$3
shift 3
strict='-Wall -Wextra -pedantic -Werror -fsyntax-only'

check() { # compiler, standard, language, header
  # shellcheck disable=SC2086
  echo "#include \"$4\"" | "$1" -std="$2" -x "$3" $strict -I "$include" $flags -
}

flags=$*
for standard in c99 c11; do
  check "$cc" "$standard" c ondaro/OndaroApi.h
done
count=0
for header in $(cd "$include" && find ondaro -name '*.h'); do
  check "$cxx" c++17 c++ "$header"
  count=$((count + 1))
done
echo "$count headers"
[ "$count" -gt 0 ]
