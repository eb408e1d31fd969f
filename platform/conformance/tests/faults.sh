#!/bin/sh
# Each planted fault of the memory port fails its own clause, by FAILED.
# usage: faults.sh CHECK DECLARATION     of the memory port
. "$(dirname "$0")/common.sh"
check=$1
declaration=$2

# one FAULT CLAUSE: a line for one that is not caught.
if [ "${3:-}" ]; then
  output=$(ONDARO_MEMORY_FAULT=$3 "$check" "$declaration" --patience 400 --only "$4" 2>&1) || true
  echo "$output" | grep -q "^$4  FAILED" || echo "$3 is not caught by $4: $output"
  exit
fi

cat >"$scratch/faults" <<FAULTS
dead-application APP-02  pid-is-group APP-03  supported-is-0 CDM-01  any-key-system CDM-02
kept-instance CDM-03  empty-id CDM-04  id-of-instance CDM-05  no-certificate CDM-07
signature-of-nothing CDM-08  signature-appended CDM-08  anything-asked CDM-09
throwing-module CDM-09  late-listener CDM-10  log-twice LOG-01  log-one-priority LOG-03
log-unformatted LOG-04  log-waits LOG-05  log-dies LOG-06  log-exits LOG-06  log-torn LOG-07
log-no-tag LOG-08  log-cut LOG-09  log-blank LOG-10  log-trimmed LOG-10  log-swapped LOG-11
log-leaks LOG-12  power-0-or-1 POW-01  power-unsigned POW-02  one-buffer SET-01  one-buffer SET-02
text-of-integer SET-04  lost-write SET-05  touched-value SET-07  crashing-boolean SET-09
two-booleans SET-10  last-segment SET-11  value-at-delivery SET-12  node-text-of-integer SET-13
errno-touched SET-14  errno-unset SET-15  node-integer-of-text SET-15  moving-node SET-16
twice SET-17  wrong-user-data SET-18  old-user-data SET-19  key-alone SET-20
end-of-nothing SET-21  called-after-end SET-22  written-at-exit SET-24  others-unseen SET-25
lock-during-callback SET-26  reordered SET-27  coalesced SET-27  same-dropped SET-28
first-write-silent SET-28  missing-refused SET-29  eight-at-most SET-30  cut-at-4-kib SET-31
cut-at-64-kib SET-31  stripped SET-31  ascii-only SET-31  integer-of-text SET-32  db-lost SET-33
memory-kept SET-34  old-copy SET-35  default-context SET-36  within-the-write SET-36
leaked-descriptor SET-37  leaked-text SET-37  prefix-is-key SET-38  emptied-first SET-40
feature-cached SYS-01  any-feature SYS-02
FAULTS
xargs -P 4 -n 2 "$0" "$check" "$declaration" <"$scratch/faults" >"$scratch/output"
[ ! -s "$scratch/output" ] || die 'faults that are not caught:'
echo "$(($(wc -w <"$scratch/faults") / 2)) faults, each caught by its own clause"
