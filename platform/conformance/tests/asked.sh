#!/bin/sh
# The guide's table of what the library asks of a set is what the library's sources ask.
# usage: asked.sh SOURCE-DIRECTORY GUIDE
set -eu
export LC_ALL=C
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The names that are written out in the sources, by kind.
sources() {
  grep -rohE '"(db|memory)/[^"]+"' "$1" | sed 's/"\(.*\)"/key \1/'
  grep -rohE '"com\.halvex/[^"]+"' "$1" | sed 's/"\(.*\)"/feature \1/'
  sed -nE 's/.* KEY_SYSTEM = "(.*)";/key system \1/p' "$1"/*/*.cpp
  sed -nE 's/.*PRIORITY_[A-Z]+ = ([0-9]+);/log priority \1/p' "$1"/*.h
  grep -rohE '"ONDARO_(API|PAL)"' "$1" | sed 's/"\(.*\)"/log tag \1/'
}
guide() {
  sed -n '/^## What the library asks/,$p' "$1" | sed -nE 's/^\| ([a-z ]+) \| `([^`]+)` \|.*/\1 \2/p'
}

sources "$1" | sort -u >"$scratch/sources"
guide "$2" | sort >"$scratch/guide"
[ "$(wc -l <"$scratch/sources")" -gt 10 ] || { echo "too little found in $1" >&2; exit 1; }
diff "$scratch/sources" "$scratch/guide" || {
  echo "the sources (<) and the guide (>) differ" >&2
  exit 1
}
