#!/bin/sh
# What a declaration says is held against the port, what is blocked names a clause that failed, a
# deadlock ends in time, and what was changed is put back, after Ctrl-C too.
# usage: verdicts.sh CHECK DECLARATION     of the memory port
. "$(dirname "$0")/common.sh"
check=$1
declaration=$2

# declared EDIT STATUS FAMILY PATTERN...: what the kit says of a family when the declaration is edited
# so, by sed.
declared() {
  sed "$1" "$declaration" >"$scratch/conf"
  judge "$2" "$scratch/conf" --only "$3" --patience 300
  shift 3
  for pattern; do shows "$pattern"; done
}

declared /^decryption-module/d 1 CDM '^CDM-01  FAILED' 'expected: another number than 11' \
  '^CDM-03  absent'
declared /^device-keys/d 1 CDM-06 '^CDM-06  FAILED'
declared '/^settings.shared/s/yes/no/' 1 SET-24 "which 'settings.shared' says it does not share"
for missing in settings.shared=SET-27 settings.restart=SET-33 log.read=LOG-01 feature.key=SYS-04; do
  declared "/^${missing%=*}/d" 1 "${missing#*=}" "^${missing#*=}  UNDECLARED" \
    "'${missing%=*}' is missing in the declaration"
done
SINK=/dev/null declared 's/{sink}/"$SINK"/' 1 LOG '^LOG-05  UNDECLARED' '^LOG-06  UNDECLARED'
declared '/^feature/s/com.halvex.*year/invented/' 1 SYS-04 "declares invented" \
  "product.tv_year, which the library asks of every set"
declared '/^power/d; $a power.state = 0' 0 POW '^POW-02  absent'
declared '$a settings.callbacks = any-thread' 0 SET-36 '^note: change callbacks come on any thread'
for line in 'log.raed = cat log' 'decryption-module = maybe' 'power.set = write it' 'port = twice'; do
  declared "\$a $line" 2 POW 'conf:[0-9]+: '
done
judge 2 "$declaration" --only SET-99
judge 2 "$declaration" --no-such-option

# A whole run over a port that is broken at its root: whoever is blocked names one that says FAILED.
export ONDARO_MEMORY_FAULT=cut-at-4-kib
judge 1 "$declaration" --patience 300 --only SET --json "$scratch/result.json"
shows 'came: .*4095 bytes'
awk '/^[A-Z]+-[0-9]+  (FAILED|BLOCKED)/ { status[$1] = $2 } / needs [A-Z]+-/ { needed[$2] = 1 }
  END { for (id in needed) if (status[id] == "") exit 1 }' "$scratch/output" ||
  die 'a clause is blocked by one that holds'

# A clause that never ends does so after ten times the patience, and its restoring is seen to.
export ONDARO_MEMORY_FAULT=lock-during-callback
start=$(date +%s)
judge 1 "$declaration" --patience 200 --only SET-26
[ $(($(date +%s) - start)) -le 20 ] || die 'a deadlock took too long'
shows 'came:     no end in 2000 ms'
unset ONDARO_MEMORY_FAULT

power() { "$check" --help-with "$declaration" "$scratch" 1000 save "$scratch/reply" && cat "$scratch/reply"; }
set_power() { "$check" --help-with "$declaration" "$scratch" 1000 write "$scratch/reply" set/power "i$1"; }
set_power 1
before=$(power)
judge 0 "$declaration" --only POW --only APP-01
[ "$(power)" = "$before" ] || die "power and feature are $(power), not $before"

# The pipe makes the kit's first process wait, while Ctrl-C comes.
for signal in INT TERM; do
  ONDARO_MEMORY_FAULT=lock-during-callback "$check" "$declaration" --only POW --only SET-26 \
    --patience 60000 >"$scratch/output" 2>&1 &
  kit=$!
  until grep -qs '^POW-03' "$scratch/output"; do kill -0 $kit || die 'ended early'; sleep 0.05; done
  kill -$signal $kit
  status=0
  wait $kit || status=$?
  [ $status -gt 128 ] || die "exit status $status after SIG$signal"
  shows 'verdict: .* not conformant .*ended by signal'
  [ "$(power)" = "$before" ] || die "after SIG$signal power and feature are $(power), not $before"
done
