#!/bin/sh
# A desk passes on what its command ends with, needs no standard input, keeps a set that is named,
# and leaves neither process nor file behind, also when it is killed.
# usage: desk-test.sh RUN-DESK
set -eu
desk=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cd "$root"

fail() {
  echo "failed: $*" >&2
  exit 1
}
ends_with() { # code, command...
  wanted=$1 code=0
  shift
  "$@" >out 2>err || code=$?
  [ "$code" = "$wanted" ] || fail "$* ended with $code, not $wanted: $(cat err)"
}
prints() { # text, command...
  text=$1
  shift
  ends_with 0 "$@"
  [ "$(cat out)" = "$text" ] || fail "$* printed '$(cat out)', not '$text'"
}

ends_with 2 "$desk" one two
ends_with 7 "$desk" -- sh -c 'exit 7'
ends_with 127 "$desk" -- no-such-command
ends_with 137 "$desk" -- sh -c 'kill -KILL $$'
prints 1 "$desk" -- ondaro-ctl get SDR <&-
echo 'ondaro-ctl get SDR' | prints 1 "$desk"
prints "$root" "$desk" -- pwd

ends_with 0 "$desk" -- ondaro-ctl list
! grep 'cannot be read\|not set' out || fail 'the factory leaves properties without a value'
# The shipped policy, read after the rules of a system bus: all is well but for the absent daemon.
"$desk" -- sh -c 'example-daemon 2>/dev/null & ondaro-ctl wait ONDARO_STATUS=idle --timeout 20 &&
  ondaro-ctl doctor' >doctor || fail "doctor: $(cat doctor)"

ends_with 0 "$desk" set -- ondaro-ctl set ONDARO_TOS_STATUS accept
prints accept "$desk" set -- ondaro-ctl get ONDARO_TOS_STATUS

# What was started there ends with it, whatever it made of itself and of SIGTERM.
gone() { # the desk whose directory the file `started` names
  directory=$(cat started)
  [ ! -e "$directory" ] || fail "$directory outlived its desk"
  ! grep -lszF "$directory" /proc/[0-9]*/environ || fail 'a process outlived its desk'
}
started='setsid sleep 1000 & echo $TMPDIR >started'
ends_with 0 "$desk" -- sh -c "(trap '' TERM; sleep 1000) & $started"
gone
for signal in HUP:129 INT:130 TERM:143; do
  rm started
  env --default-signal=INT "$desk" -- sh -c "$started; wait" &
  process=$!
  for _ in $(seq 300); do
    [ ! -s started ] || break
    sleep 0.1
  done
  kill -s "${signal%:*}" "$process"
  code=0
  wait "$process" || code=$?
  [ "$code" = "${signal#*:}" ] || fail "ended by ${signal%:*} with $code"
  gone
done
echo 'The desk is as it should be.'
