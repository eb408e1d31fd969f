#!/bin/sh
# Runs a command for which programs of ARM are programs like any other, by qemu-user. In namespaces
# of its own: nothing of the machine changes, and only the user who started it is known there.
# usage: cmake/with-emulator.sh armhf|arm64 COMMAND...    after: cmake/ensure-sysroot.sh
# Linux 6.7 or newer.
set -eu
if [ -z "${QEMU_LD_PREFIX:-}" ]; then
  QEMU_LD_PREFIX=$(realpath "$(dirname "$0")/../build/sysroot/$1") \
    exec unshare --user --map-root-user --mount "$0" "$@"
fi
case $1 in
  armhf) bits='\x01' machine='\x28' emulator=qemu-arm ;;
  arm64) bits='\x02' machine='\xb7' emulator=qemu-aarch64 ;;
esac
shift
# Name, magic number and mask of an ELF file's first 19 bytes, interpreter.
mount -t binfmt_misc none /proc/sys/fs/binfmt_misc
ignored='\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00'
printf ':ondaro:M::%s:%s:%s:P' "\\x7fELF$bits$ignored$machine" "\\xff\\xff\\xff\\xff\\xff$ignored\\xff" \
  "/usr/bin/$emulator" >/proc/sys/fs/binfmt_misc/register
exec "$@"
