# shellcheck shell=sh disable=SC2154
# What the kit's own tests share: a directory for everything, with the state of a port in it.
set -eu
export LC_ALL=C
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/set"
export ONDARO_HOST_STATE="$scratch/state" ONDARO_MEMORY_SET="$scratch/set"

die() {
  echo "$*" >&2
  [ ! -f "$scratch/output" ] || cat "$scratch/output" >&2
  exit 1
}

# judge EXPECTED-STATUS ARGUMENT...: runs the kit.
judge() {
  expected=$1
  shift
  status=0
  "$check" "$@" >"$scratch/output" 2>&1 || status=$?
  [ "$status" = "$expected" ] || die "exit status $status, not $expected"
}

# shows PATTERN: in what the kit said.
shows() { grep -Eq -e "$1" "$scratch/output" || die "nothing like '$1' in:"; }
