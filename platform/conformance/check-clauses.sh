#!/bin/sh
# Every clause of the seam's headers has one test that names it, and every test names a clause.
# usage: check-clauses.sh HEADER-DIRECTORY TEST-DIRECTORY
set -eu
export LC_ALL=C
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

sed -nE 's/^ \* ([A-Z]{3}-[0-9]{2})  .*/\1/p' "$1"/*.h | sort >"$scratch/clauses"
sed -nE 's/^TEST(_[FP])?\([A-Za-z]+, ([A-Z]{3})_([0-9]{2})_.*/\2-\3/p' "$2"/*.cpp | sort \
  >"$scratch/tests"
# A test whose name begins with no clause shows as itself.
grep -hE '^TEST(_[FP])?\(' "$2"/*.cpp | grep -vE '^TEST(_[FP])?\([A-Za-z]+, [A-Z]{3}_[0-9]{2}_' \
  >>"$scratch/tests" || true

status=0
complain() {
  [ ! -s "$scratch/found" ] || { sed "s/^/$1: /" "$scratch/found" >&2; status=1; }
}
[ -s "$scratch/clauses" ] || { echo "no clause in $1" >&2; exit 1; }
uniq -d "$scratch/clauses" >"$scratch/found"; complain 'clause id used twice'
sort "$scratch/tests" | uniq -d >"$scratch/found"; complain 'clause with more than one test'
sort -u "$scratch/clauses" -o "$scratch/clauses"
sort -u "$scratch/tests" -o "$scratch/tests"
comm -23 "$scratch/clauses" "$scratch/tests" >"$scratch/found"; complain 'clause without a test'
comm -13 "$scratch/clauses" "$scratch/tests" >"$scratch/found"; complain 'test of no known clause'
[ $status -ne 0 ] || echo "$(wc -l <"$scratch/clauses") clauses, each with its test"
exit $status
