#!/bin/sh
# The skeleton that ports begin with builds, and is told clause by clause what it lacks.
# usage: skeleton.sh CHECK DECLARATION
. "$(dirname "$0")/common.sh"
check=$1
judge 1 "$2" --patience 500
shows '^LOG-01 +UNDECLARED'
shows '^SET-05 +FAILED'
shows '^SET-17 +(FAILED|BLOCKED)'
shows '^APP-02 +passed'
shows '^CDM-01 +passed'
shows '^verdict: skeleton is not conformant'
! grep -q '^remark' "$scratch/output" || die 'a run of the skeleton went wrong:'
