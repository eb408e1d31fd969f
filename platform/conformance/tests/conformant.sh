#!/bin/sh
# A port with its declaration is conformant, and the run's four outputs say the same.
# usage: conformant.sh CHECK DECLARATION
. "$(dirname "$0")/common.sh"
check=$1
judge 0 "$2" --junit "$scratch/junit.xml" --json "$scratch/result.json" --statement "$scratch/statement"
shows '^verdict: .* is conformant \('
! grep -Eq 'remark|FAILED|BLOCKED|UNDECLARED' "$scratch/output" || die 'conformant, in spite of:'

clauses=$("$check" --list | wc -l)
grep -q "tests=\"$clauses\" failures=\"0\" errors=\"0\"" "$scratch/junit.xml" || die 'JUnit differs'
[ "$(grep -c '<testcase' "$scratch/junit.xml")" = "$clauses" ] || die 'JUnit lacks clauses'
grep -q '"conformant" : true' "$scratch/result.json" || die 'JSON differs'
[ "$(grep -c '"clause" :' "$scratch/result.json")" = "$clauses" ] || die 'JSON lacks clauses'
[ "$(grep -Ec '^[A-Z]{3}-[0-9]{2} (passed|absent)$' "$scratch/statement")" = "$clauses" ] ||
  die 'the statement lacks clauses'

# The digest is of the lines about the port and the lines of the clauses.
digest=$(sed -nE '/^(port|library|declaration|kit|verdict) |^[A-Z]{3}-[0-9]{2} /p' "$scratch/statement" |
  sha256sum | cut -d ' ' -f 1)
grep -q "^result       sha256:$digest\$" "$scratch/statement" || die 'the digest differs'
grep -q "\"digest\" : \"$digest\"" "$scratch/result.json" || die 'the digest in JSON differs'
