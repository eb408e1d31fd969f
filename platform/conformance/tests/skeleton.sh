#!/bin/sh
# The skeleton that ports begin with builds, is told clause by clause what it lacks, and passes only
# what is true of a set that cannot do anything.
# usage: skeleton.sh CHECK DECLARATION
. "$(dirname "$0")/common.sh"
check=$1
judge 1 "$2" --patience 500
shows '^LOG-01  UNDECLARED'
shows "'settings.shared' is missing in the declaration"
shows '^SET-05  FAILED'
shows '^SET-17  BLOCKED'
shows '^verdict: skeleton is not conformant'
passed=$(sed -n 's/^\(...-..\)  passed .*/\1/p' "$scratch/output" | tr '\n' ' ')
[ "$passed" = 'APP-04 CDM-01 CDM-02 CDM-12 ' ] || die "passed: $passed"
