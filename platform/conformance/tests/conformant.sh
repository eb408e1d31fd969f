#!/bin/sh
# A port with its declaration is conformant, text and JSON say the same, and nothing that the kit
# changed stays changed.
# usage: conformant.sh CHECK DECLARATION
. "$(dirname "$0")/common.sh"
check=$1
judge 0 "$2" --json "$scratch/result.json"
shows '^verdict: .* is conformant \('
! grep -Eq '^note|FAILED|BLOCKED|UNDECLARED' "$scratch/output" || die 'conformant, in spite of:'

clauses=$("$check" --list | wc -l)
[ "$(grep -Ec '^[A-Z]{3}-[0-9]{2}  (passed|absent) ' "$scratch/output")" = "$clauses" ] ||
  die 'clauses are missing'
grep -q '"conformant" : true' "$scratch/result.json" || die 'JSON differs'
[ "$(grep -c '"clause" :' "$scratch/result.json")" = "$clauses" ] || die 'JSON lacks clauses'
