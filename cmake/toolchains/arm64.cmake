# SPDX-License-Identifier: Apache-2.0
# Cross build for Debian's arm64: cmake -DCMAKE_TOOLCHAIN_FILE=<this file>
# -DCMAKE_SYSROOT=<sysroot>; `make cross ARCH=arm64` does all of it.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(WIDGETENGINE_TRIPLET aarch64-linux-gnu)
set(WIDGETENGINE_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
