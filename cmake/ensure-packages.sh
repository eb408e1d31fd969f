#!/bin/sh
# Installs what is missing of the package groups named, and says so before it does.
# usage: cmake/ensure-packages.sh GROUP...
set -eu

list=$(dirname "$0")/packages.txt
missing=
for group in "$@"; do
  for package in $(sed -n "s/^$group //p" "$list"); do
    state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$state" = installed ] || missing="$missing $package"
  done
done
[ -n "$missing" ] || exit 0

as_root=
[ "$(id -u)" = 0 ] || as_root=sudo
echo "Installing the missing packages:$missing"
$as_root apt-get update -qq
# shellcheck disable=SC2086
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing \
  >/dev/null
