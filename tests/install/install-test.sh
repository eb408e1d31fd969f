#!/bin/sh
# What is installed can be used: built and run from a prefix of its own with pkg-config and plain
# cc, with CMake, and as a tool.
# usage: install-test.sh BUILD-DIRECTORY LIBRARY-DIRECTORY C-COMPILER C++-COMPILER [SANITIZERS]
set -eux
here=$(cd "$(dirname "$0")" && pwd)
build=$1 libdir=$2 cc=$3 cxx=$4 sanitize=${5:+-fsanitize=$5}

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
prefix=$root/prefix
export ONDARO_HOST_STATE="$root/state"
mkdir "$ONDARO_HOST_STATE"
unset DESTDIR CFLAGS CXXFLAGS LDFLAGS

cmake --install "$build" --prefix "$prefix" >/dev/null
find "$prefix" -type f \( -name '*.so*' -o -path '*/bin/*' \) -exec readelf -d {} + \
  >"$root/dynamic" 2>/dev/null || true
grep -q SONAME "$root/dynamic"
if grep -E 'RPATH|RUNPATH' "$root/dynamic" \
  || grep -rlF "$build" "$prefix" --include='*.cmake' --include='*.pc'; then
  exit 1 # looks for something where it was built
fi

# Found through the environment alone, as in a prefix outside the system's directories.
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
with_pkg_config() { # output, source, further packages
  output=$1 source=$2
  shift 2
  # shellcheck disable=SC2046
  "$cc" $sanitize -o "$root/$output" "$source" $(pkg-config --cflags --libs ondaro-platform-tv "$@")
}
run() { LD_LIBRARY_PATH="$prefix/$libdir" "$@"; }
with_pkg_config consumer "$here/consumer.c"
run "$root/consumer"
for example in daemon application; do
  with_pkg_config "$example" \
    "$prefix/share/doc/lib-ondaro-platform-tv-dev/examples/$example.c" gio-2.0
done

cmake -S "$here/project" -B "$root/project" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$sanitize" \
  -DCMAKE_CXX_FLAGS="$sanitize"
cmake --build "$root/project"
run "$root/project/consumer_c"
run "$root/project/consumer_cpp"

ctl=$prefix/bin/ondaro-ctl
[ ! -e "$build/bin/ondaro-ctl" ] || [ "$(run "$ctl" get SDR)" = 1 ]
[ ! -e "$build/lib/ondaro-platform-host" ] || run "$ctl" auth system-id
