#!/bin/sh
# Every link of the pages leads somewhere, and docs/contributing.md names every folder.
# usage: pages-test.sh SOURCE-DIRECTORY
set -eu
cd "$1"
bad=0
complain() {
  echo "$*" >&2
  bad=1
}

anchors() { # of a page: its headings as links name them
  sed -n 's/^##* //p' "$1" | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}
for page in $(git ls-files '*.md'); do
  for link in $(grep -o '](\([^)]*\))' "$page" | sed 's/^](//; s/)$//' | grep -v '^https:'); do
    target=${link%%#*}
    file=${target:+$(dirname "$page")/$target}
    file=${file:-$page}
    [ -e "$file" ] || complain "$page: $link leads nowhere"
    case $link in
      *#*) anchors "$file" | grep -qx "${link#*#}" || complain "$page: $link names no heading" ;;
    esac
  done
done

# Its names end in a slash, and may hold wildcards.
# shellcheck disable=SC2016
names=$(grep '^| `' docs/contributing.md | cut -d '|' -f 2 | grep -o '`[^`]*/`' | tr -d '`')
is_named() {
  for name in $names; do
    # shellcheck disable=SC2254
    case $1 in $name) return ;; esac
  done
  return 1
}
for folder in $(git ls-files | sed -n 's|[^/]*$||p' | sort -u); do
  is_named "$folder" || complain "docs/contributing.md does not name $folder"
done
for name in $names; do
  case $name in *\**) ;; *) [ -d "$name" ] || complain "docs/contributing.md names $name, which is none" ;; esac
done
for file in $(git ls-files | grep -v /); do
  grep -qF "\`$file\`" docs/contributing.md || complain "docs/contributing.md does not name $file"
done
exit $bad
