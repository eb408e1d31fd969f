#!/bin/sh
# Size, relocations, start and memory of the library as shipped (the release build, stripped),
# beside a minimal GLib program.
# usage: bench/footprint.sh [ROUNDS]    after: cmake --preset release && cmake --build --preset release
set -eu
cd "$(dirname "$0")/.."
rounds=${1:-300}
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir "$root/state"
export ONDARO_HOST_STATE="$root/state" ONDARO_HOST_LOG=off LD_LIBRARY_PATH="$root"

mkdir "$root/ondaro-platform-host"
for file in lib-ondaro-platform-tv.so.1 libondaro-platform-host.so.1 ondaro-platform-host/crypto.so; do
  strip -o "$root/$file" "build/release/lib/$file"
  printf '%s: %s bytes stripped\n' "$file" "$(stat -c %s "$root/$file")"
  size "$root/$file" | awk 'NR == 2 { print "  code and constants " $1 ", data " $2 ", zeroed " $3 }'
  printf '  relocations:'
  readelf -rW "$root/$file" \
    | awk '$3 ~ /^R_/ { n[$3]++; all++ } END { printf " %d", all; for (k in n) printf ", %s %d", k, n[k]; print "" }'
done
echo

program() { # name, source, what to link
  name=$1 source=$2
  shift 2
  # shellcheck disable=SC2046
  cc -O2 -Iinclude $(pkg-config --cflags gio-2.0) -o "$root/$name" "$source" -L"$root" \
    -Wl,-rpath-link,"$root" -Wl,--no-as-needed "$@" $(pkg-config --libs gio-2.0)
}
# What the two libraries bring in, without them: the difference to "loaded" is theirs.
others=$(readelf -dW "$root"/*.so.1 | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort -u \
  | grep -Ev 'ondaro|libc\.so|ld-linux' | sed 's/^/-l:/')
library=-l:lib-ondaro-platform-tv.so.1
program glib bench/FootprintGlib.c
# shellcheck disable=SC2086
program dependencies bench/FootprintGlib.c $others
program loaded bench/FootprintGlib.c "$library"
program used bench/FootprintLibrary.c -DPROPERTY='"ONDARO_STATUS"' "$library"
program identified bench/FootprintLibrary.c -DPROPERTY='"SYSTEM_ID"' "$library"

c++ -std=c++17 -O2 -o "$root/footprint" bench/Footprint.cpp
"$root/footprint" "$rounds" "$root/glib" "$root/dependencies" "$root/loaded" \
  "$root/identified" "$root/used"
