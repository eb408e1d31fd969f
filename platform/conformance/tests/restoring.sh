#!/bin/sh
# What a run changes is as it was afterwards: after its end, after Ctrl-C in the middle, and after
# a port that had to be killed.
# usage: restoring.sh BROKEN-CHECK DECLARATION     of the host port
. "$(dirname "$0")/common.sh"
check=$1

# Where the port can remove keys, the kit does not leave its own behind.
{ cat "$2"; echo "settings.remove = echo {key} >>'$scratch/removed'"; } >"$scratch/conf"

probe() { "$check" --probe "$scratch/conf" "$scratch" 1000 "$@" 3>&1; }

prepare() {
  rm -rf "$ONDARO_HOST_STATE" "$scratch/removed"
  probe write-text db/conformance/first 'of a run before'
  probe write-int memory/conformance/second 7
  probe write-int host/power/state 1
}

is_restored() {
  [ "$(probe read-text db/conformance/first)" = 'of a run before' ] || die 'text not restored'
  [ "$(probe read-int memory/conformance/second)" = 7 ] || die 'integer not restored'
  [ "$(probe read-int host/power/state)" = 1 ] || die 'power state not restored'
  [ "$(probe read-text host/app/conformance)" = '(none)' ] || die 'wrote what it need not'
}

prepare
judge 0 "$scratch/conf" --only SET-05 --only SET-08 --only SET-20 --only POW-02
is_restored
grep -qx 'memory/conformance/first' "$scratch/removed" || die 'a key was not removed'
! grep -q 'db/conformance/first' "$scratch/removed" || die 'a key was removed that was there'

# The port never ends the read of SET-09, so the signal comes while the tests run.
for signal in INT TERM; do
  prepare
  rm "$scratch/output"
  ONDARO_BROKEN=endless-read "$check" "$scratch/conf" --only POW-02 --only SET-05 --only SET-09 \
    --only SET-20 --patience 60000 >"$scratch/output" 2>&1 &
  kit=$!
  until grep -qs '^SET-05' "$scratch/output"; do kill -0 $kit || die 'ended early'; sleep 0.01; done
  kill -$signal $kit
  status=0
  wait $kit || status=$?
  [ $status -gt 128 ] || die "exit status $status after SIG$signal"
  shows 'remark: interrupted by signal'
  shows 'verdict: .* not conformant'
  is_restored
done

prepare
export ONDARO_BROKEN=endless-read
judge 1 "$scratch/conf" --only POW-02 --only SET-09 --only SET-20 --patience 100
unset ONDARO_BROKEN
shows 'no end in sight; killed'
shows '^SET-20 +passed'
is_restored
