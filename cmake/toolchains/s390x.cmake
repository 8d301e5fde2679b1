# SPDX-License-Identifier: Apache-2.0
# Cross build for Debian's s390x: cmake -DCMAKE_TOOLCHAIN_FILE=<this file>
# -DCMAKE_SYSROOT=<sysroot>; `make cross ARCH=s390x` does all of it.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(WIDGETENGINE_TRIPLET s390x-linux-gnu)
set(WIDGETENGINE_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
