#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what a cross build for ARCH (arm64, armhf, s390x) needs beyond
# what tools/setup.sh installs for every build: Debian's cross compiler, qemu-user with its binfmt_misc
# entries, and mmdebstrap for the sysroot. Registers the binfmt_misc
# entries where no init system did. Safe to run again.
#   tools/setup-cross.sh ARCH
set -euo pipefail
arch=$1
case "$arch" in
  arm64) triplet=aarch64-linux-gnu qemu=aarch64 ;;
  armhf) triplet=arm-linux-gnueabihf qemu=arm ;;
  s390x) triplet=s390x-linux-gnu qemu=s390x ;;
  *) echo "setup-cross: unknown architecture '$arch' (arm64, armhf or s390x)" >&2; exit 2 ;;
esac
bash "$(dirname "$0")/setup.sh" "g++-$triplet" "binutils-$triplet" \
  qemu-user qemu-user-binfmt mmdebstrap
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

# The tests start foreign programs of their own (widgetctl, engine_driver):
# the kernel hands them to qemu through binfmt_misc.
binfmt=/proc/sys/fs/binfmt_misc
if [ ! -e "$binfmt/register" ]; then
  $sudo mount -t binfmt_misc binfmt_misc "$binfmt"
fi
if [ ! -e "$binfmt/qemu-$qemu" ]; then
  $sudo /lib/systemd/systemd-binfmt "/usr/lib/binfmt.d/qemu-$qemu.conf"
fi
if [ "$(head -1 "$binfmt/qemu-$qemu")" != enabled ]; then
  echo "setup-cross: binfmt_misc entry qemu-$qemu is not enabled" >&2
  exit 1
fi
