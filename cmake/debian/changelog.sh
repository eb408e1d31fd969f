#!/bin/sh
# Tells the project's changelog in Debian's format. A version without a date yet has that of the
# source (SOURCE_DATE_EPOCH).
# usage: changelog.sh CHANGELOG.md SOURCE-PACKAGE MAINTAINER
set -eu
changelog=$1 source=$2 maintainer=$3

trailer() { [ -z "$date" ] || printf '\n -- %s  %s\n' "$maintainer" "$(LC_ALL=C date -uR -d "$date")"; }

# Entries on one line each, whatever their length.
awk '/^(## |- )/ { if (entry) print entry; entry = $0; next }
     entry && NF { sub(/^ +/, " "); entry = entry $0 }
     END { print entry }' "$changelog" | {
  date=
  while IFS= read -r line; do
    case $line in
      '## '*)
        trailer
        [ -z "$date" ] || echo
        # shellcheck disable=SC2086
        set -- $line
        case $3 in
          '(unreleased)') date=@$SOURCE_DATE_EPOCH distribution=UNRELEASED ;;
          *) date=$(echo "$3" | tr -d '()') distribution=stable ;;
        esac
        printf '%s (%s) %s; urgency=medium\n\n' "$source" "$2" "$distribution"
        ;;
      *) echo "${line#- }" | fold -s -w 74 | sed 's/ *$//; 1s/^/  * /; 2,$s/^/    /' ;;
    esac
  done
  trailer
}
