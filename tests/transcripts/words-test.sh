#!/bin/bash
# Help, manual page and completion know the same verbs and options.
# usage: words-test.sh ONDARO-CTL MANUAL-SOURCE COMPLETION
set -euo pipefail
ctl=$1 manual=$2 completion=$3

row() { # verb; reads its options. Those of every verb are in the row of no verb alone.
  local words
  words=$(tr ' ' '\n' | grep . | sort -u || true)
  [ -z "$1" ] || words=$(grep -vxF -e "$global" <<<"$words" || true)
  echo "$1:" $words
}
# Calls "$1 VERB" for no verb and for every verb of the help, inner ones in place of theirs.
each_verb() {
  local verb inner word
  "$1" ''
  for verb in $(help_section '' Verbs); do
    inner=$(help_section "$verb" Verbs)
    for word in ${inner:-''}; do "$1" "$verb${inner:+ $word}"; done
  done
}
help_section() { "$ctl" $1 --help | sed -n "/^$2:/,/^\$/p" | grep -oE '^  [^ ]+' | tr , '\n' || true; }
in_help() { help_section "$1" Options | row "$1"; }
in_manual() {
  local section=OPTIONS lines='^\*'
  [ -z "$1" ] || section=VERBS lines="^\\*$1\\*"
  { sed -n "/^# $section/,/^# [^${section:0:1}]/p" "$manual" | grep -E "$lines" |
    grep -oE '\*--?[a-z-]+\*' || true; } | tr -d '*' | row "$1"
}
in_completion() {
  # shellcheck disable=SC2206
  COMP_WORDS=(ondaro-ctl $1 -)
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _ondaro_ctl
  printf '%s\n' "${COMPREPLY[@]}" | row "$1"
}

global=$(help_section '' Options | tr -d ' ')
# shellcheck source=/dev/null
source "$completion"
diff <(each_verb in_help) <(each_verb in_manual) || { echo 'the manual page differs' >&2; exit 1; }
diff <(each_verb in_help) <(each_verb in_completion) || { echo 'the completion differs' >&2; exit 1; }
