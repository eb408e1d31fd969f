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

for library in lib-ondaro-platform-tv libondaro-platform-host; do
  strip -o "$root/$library.so.1" "build/release/lib/$library.so.1"
  ln -s "$library.so.1" "$root/$library.so"
  printf '%s: %s bytes stripped\n' "$library" "$(stat -c %s "$root/$library.so.1")"
  size "$root/$library.so.1" | awk 'NR == 2 { print "  code and constants " $1 ", data " $2 ", zeroed " $3 }'
  printf '  relocations:'
  readelf -rW "$root/$library.so.1" \
    | awk '$3 ~ /^R_/ { n[$3]++; all++ } END { printf " %d", all; for (k in n) printf ", %s %d", k, n[k]; print "" }'
done
mkdir "$root/ondaro-platform-host"
strip -o "$root/ondaro-platform-host/crypto.so" build/release/lib/ondaro-platform-host/crypto.so
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
program glib bench/FootprintGlib.c
# shellcheck disable=SC2086
program dependencies bench/FootprintGlib.c $others
program loaded bench/FootprintGlib.c -l:lib-ondaro-platform-tv.so
program used bench/FootprintLibrary.c -DPROPERTY='"ONDARO_STATUS"' -l:lib-ondaro-platform-tv.so
program identified bench/FootprintLibrary.c -DPROPERTY='"SYSTEM_ID"' -l:lib-ondaro-platform-tv.so

c++ -std=c++17 -O2 -o "$root/footprint" bench/Footprint.cpp
"$root/footprint" "$rounds" "$root/glib" "$root/dependencies" "$root/loaded" \
  "$root/identified" "$root/used"
