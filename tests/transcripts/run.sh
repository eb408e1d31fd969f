#!/bin/bash
# Runs a session: its commands one by one, in one shell, on a fresh set and a private bus, and holds
# what each prints against the lines below it.
#   $ COMMAND    goes on in lines that begin with "> "
#   [N]          after the output: the exit code, unless it is 0
#   ...          any text within a line; alone in a line, one line or more
#   <n> <time>   a number; a time as the tool prints it
# Of a Markdown page only the blocks "console" are sessions. Beside what the shell has, sessions have:
#   bus [POLICY]        the private bus, with more in its policy
#   ready FILE [TEXT]   waits until the file holds "ready", or the text
#   tab LINE            what completion offers behind the line
# usage: run.sh BIN-DIRECTORY SESSION
set -u
shopt -s extglob
bin=$(cd "$1" && pwd) session=$(realpath "$2")
SOURCE=$(cd "$(dirname "$0")/../.." && pwd)
root=$(mktemp -d)
trap 'exec 2>/dev/null; kill -9 $bus_pid $(jobs -p); wait; rm -rf "$root"' EXIT
mkdir "$root/set" "$root/here"
cd "$root/here" || exit 1
export ONDARO_HOST_STATE=$root/set DBUS_SYSTEM_BUS_ADDRESS=unix:path=$root/bus HOME=$root/home
export PATH=$bin:$PATH LC_ALL=C.UTF-8 G_DEBUG=fatal-criticals SOURCE
unset ONDARO_HOST_LOG NO_COLOR

# shellcheck disable=SC2120
bus() {
  cat >"$root/bus.conf" <<EOF
<busconfig>
  <type>system</type> <auth>EXTERNAL</auth> <listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_destination="*"/> <allow send_type="signal"/>
    <allow receive_sender="*"/>
  </policy>
  ${1-}
</busconfig>
EOF
  if [ -e "$root/bus" ]; then
    gdbus call --system --dest org.freedesktop.DBus --object-path / \
      --method org.freedesktop.DBus.ReloadConfig >/dev/null
  else
    dbus-daemon --config-file="$root/bus.conf" --nofork --nopidfile --nosyslog --print-address \
      >"$root/bus.out" 2>&1 &
    bus_pid=$!
    disown
    ready "$root/bus.out" unix:
  fi
}

ready() {
  local tries=0
  until grep -qa -- "${2-ready}" "$1" 2>/dev/null; do
    ((tries++ < 3000)) || { echo "waited in vain for '${2-ready}' in $1:"; cat "$1"; return 1; }
    sleep 0.01
  done
}

tab() {
  [ -n "$(complete -p ondaro-ctl 2>/dev/null)" ] || source "$SOURCE/tools/ondaro-ctl/ondaro-ctl.bash"
  local words=${1//=/ = } function
  function=$(complete -p ondaro-ctl | sed 's/.*-F \([^ ]*\).*/\1/')
  compopt() { :; }  # works within a real completion only
  COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  read -ra COMP_WORDS <<<"$words"
  [[ $1 != *[\ =] ]] || COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  "$function" ondaro-ctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  echo "${COMPREPLY[@]}"
}

# The lines expected as a pattern of the shell.
pattern() {
  sed -E 's/[][\\*?(){}|!@+^$<>.~#&;"'\''`=,:/%-]/\\&/g; s/^\\\.\\\.\\\.$/*/; s/\\\.\\\.\\\./*([!\n])/g
    s/\\<n\\>/+([0-9])/g; s/\\<time\\>/????-??-??T??\\:??\\:??.??????Z/g' <<<"$1"
}

failures=0
check() {
  [ -n "$command" ] || return
  eval "$command" >"$root/out" 2>&1 </dev/null
  local code=$? actual
  actual=$(cat "$root/out"; ((code == 0)) || echo "[$code]")
  [[ $actual != $(pattern "${expected%$'\n'}") ]] || return
  ((failures++))
  printf '%s:%d: $ %s\n' "$session" "$at" "$command"
  diff -u --label expected --label printed <(printf %s "$expected") <(printf '%s\n' "$actual") | tail -n +4
}

bus
command='' expected='' number=0 at=0
[[ $session == *.md ]] && inside= || inside=yes
while IFS= read -r line; do
  ((++number))
  case $line in
    '```'*) check; command=''; [ "$line" = '```console' ] && inside=yes || inside= ;;
    '$ '*) [ "$inside" ] && { check; command=${line:2} expected='' at=$number; } ;;
    '> '*) [ "$inside" ] && command+=$'\n'${line:2} ;;
    '#'* | '') [[ $session == *.md ]] || { check; command=''; } ;;
    *) expected+=$line$'\n' ;;
  esac
done <"$session"
check
((at)) || echo "no command in $session"
((at && failures == 0))
