#!/bin/sh
# Unpacks the libraries and headers of another architecture, as Debian has them, into
# build/sysroot/ARCH: beside the packages of this machine, which stay as they are.
# usage: cmake/ensure-sysroot.sh armhf|arm64
set -eu
arch=$1
cd "$(dirname "$0")/.."
sysroot=$PWD/build/sysroot/$arch
packages=$(sed -n 's/^sysroot //p' cmake/packages.txt)
[ "$(cat "$sysroot/packages" 2>/dev/null)" != "$packages" ] || exit 0

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/lists/partial" "$root/cache/archives/partial"
: >"$root/status"
apt() {
  apt-get -qq -o APT::Architecture="$arch" -o APT::Architectures="$arch" -o Dir::Cache="$root/cache" \
    -o Dir::State::Lists="$root/lists" -o Dir::State::status="$root/status" \
    -o APT::Sandbox::User="$(id -un)" -o Debug::NoLocking=1 "$@"
}
echo "Unpacking into build/sysroot/$arch:" $packages
# Without one of the indexes, the packages are those of the others.
apt update || true
# shellcheck disable=SC2086
apt install -y --download-only --no-install-recommends $packages >/dev/null

# What dpkg-shlibdeps asks of a package that is not installed it finds in DEBIAN.
rm -rf "$sysroot"
mkdir -p "$sysroot/DEBIAN"
for deb in "$root"/cache/archives/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
  for list in symbols shlibs; do
    dpkg-deb -I "$deb" "$list" >>"$sysroot/DEBIAN/$list" 2>/dev/null || true
  done
done
find "$sysroot" -type l -lname '/*' | while read -r link; do
  ln -sfnr "$sysroot$(readlink "$link")" "$link"
done
echo "$packages" >"$sysroot/packages"
