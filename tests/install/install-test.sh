#!/bin/sh
# What is installed can be used: built and run from a prefix of its own with pkg-config and plain
# cc, with CMake, and as a tool.
# usage: install-test.sh BUILD-DIRECTORY LIBRARY-DIRECTORY C-COMPILER C++-COMPILER [SANITIZERS]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$1 libdir=$2 cc=$3 cxx=$4 sanitize=${5:+-fsanitize=$5}

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
prefix=$root/prefix
export ONDARO_HOST_STATE="$root/state"
mkdir "$ONDARO_HOST_STATE"
unset DESTDIR CFLAGS CXXFLAGS LDFLAGS

expect() { # what, condition
  what=$1
  shift
  "$@" >"$root/log" 2>&1 || {
    cat "$root/log" >&2
    echo "failed: $what" >&2
    exit 1
  }
  echo "ok: $what"
}

expect 'install' cmake --install "$build" --prefix "$prefix"

no_run_path() {
  find "$prefix" -type f \( -name '*.so*' -o -path '*/bin/*' \) -exec readelf -d {} + \
    >"$root/dynamic" 2>/dev/null || true
  grep -q SONAME "$root/dynamic" && ! grep -E 'RPATH|RUNPATH' "$root/dynamic"
}
expect 'no installed file has a run path' no_run_path
no_build_path() { ! grep -rlF "$build" "$prefix" --include='*.cmake' --include='*.pc'; }
expect 'no description names the build' no_build_path

# Found through the environment alone, as in a prefix outside the system's directories.
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
with_pkg_config() { # output, source, further packages
  output=$1 source=$2
  shift 2
  # shellcheck disable=SC2046
  "$cc" $sanitize -o "$root/$output" "$source" $(pkg-config --cflags --libs ondaro-platform-tv "$@")
}
run() { LD_LIBRARY_PATH="$prefix/$libdir" "$@"; }
expect 'pkg-config: consumer builds' with_pkg_config consumer "$here/consumer.c"
expect 'pkg-config: consumer runs' run "$root/consumer"
examples=$prefix/share/doc/lib-ondaro-platform-tv-dev/examples
for example in daemon application; do
  expect "pkg-config: example $example builds" \
    with_pkg_config "$example" "$examples/$example.c" gio-2.0
done

configure() {
  cmake -S "$here/project" -B "$root/project" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$sanitize" \
    -DCMAKE_CXX_FLAGS="$sanitize"
}
expect 'CMake: package is found' configure
expect 'CMake: consumers build' cmake --build "$root/project"
for consumer in consumer_c consumer_cpp; do
  expect "CMake: $consumer runs" run "$root/project/$consumer"
done

ctl=$prefix/bin/ondaro-ctl
reads_property() { [ "$(run "$ctl" get SDR)" = 1 ]; }
[ ! -e "$build/bin/ondaro-ctl" ] || expect 'installed ondaro-ctl reads a property' reads_property
[ ! -e "$build/lib/ondaro-platform-host" ] \
  || expect 'installed host backend finds its cryptography' run "$ctl" auth system-id
