#!/bin/sh
# The packages whose headers the public headers include, as a Depends line; without those that
# every compiler brings.
set -eu
cd "$(dirname "$0")/../.."

# shellcheck disable=SC2046
find include platform/include -name '*.h' | LC_ALL=C sort | sed 's/.*/#include "&"/' \
  | c++ -std=gnu++17 -x c++ -M -I. -Iinclude -Iplatform/include $(pkg-config --cflags gio-2.0) - \
  | tr ' ' '\n' | grep '^/' | xargs realpath | LC_ALL=C sort -u | xargs dpkg-query --search \
  | sed 's/:.*//' | LC_ALL=C sort -u | grep -Ev '^(libc6|linux-libc|libgcc-.*|libstdc\+\+-.*)-dev$' \
  | paste -sd, | sed 's/,/, /g'
