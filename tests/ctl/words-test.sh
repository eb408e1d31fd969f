#!/bin/bash
# Help, manual page and completion know the same verbs and options.
# usage: words-test.sh ONDARO-CTL MANUAL-SOURCE COMPLETION
set -euo pipefail
ctl=$1 manual=$2 completion=$3
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
export ONDARO_HOST_STATE=$root

row() { # verb; reads its options. Those of every verb are in the row of no verb alone.
  local words
  words=$(tr ' ' '\n' | grep . | sort -u || true)
  [ -z "$1" ] || words=$(grep -vxF -e "$global" <<<"$words" || true)
  echo "$1:" $words
}
help_section() { "$ctl" $1 --help | sed -n "/^$2:/,/^\$/p" | grep -oE '^  [^ ]+' | tr , '\n' || true; }
help_row() { help_section "$1" Options | row "$1"; }
manual_section() { sed -n "/^# $1/,/^# [^$1]/p" "$manual"; }
manual_row() { { grep -oE '\*--?[a-z-]+\*' || true; } | tr -d '*' | row "$1"; }
completed() { # words so far, the word begun
  COMP_WORDS=(ondaro-ctl $1 "$2")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _ondaro_ctl "$ctl"
  printf '%s\n' "${COMPREPLY[@]}"
}

global=$(help_section '' Options | tr -d ' ')
{
  help_row ''
  for verb in $(help_section '' Verbs); do
    inner=$(help_section "$verb" Verbs)
    for word in ${inner:-''}; do help_row "$verb${inner:+ $word}"; done
  done
} >"$root/help"
{
  manual_section OPTIONS | grep '^\*' | manual_row ''
  manual_section VERBS | grep '^\*' | while IFS='*' read -r _ verb rest; do
    manual_row "$verb" <<<"*$rest"
  done
} >"$root/manual"
source "$completion"
{
  completed '' - | row ''
  for verb in $(completed '' ''); do
    inner=$(completed "$verb" '' | grep '^[a-z]' || true)  # names of properties are upper case
    for word in ${inner:-''}; do
      verb_in="$verb${inner:+ $word}"
      completed "$verb_in" - | row "$verb_in"
    done
  done
} >"$root/completion"
sort -o "$root/help" "$root/help"
sort "$root/manual" | diff "$root/help" - || { echo 'the manual page differs' >&2; exit 1; }
sort "$root/completion" | diff "$root/help" - || { echo 'the completion differs' >&2; exit 1; }

names=$("$ctl" list | cut -d ' ' -f 1)
[ "$(completed wait '')" = "$names" ] || { echo 'not the names of the properties' >&2; exit 1; }
cat "$root/help"
