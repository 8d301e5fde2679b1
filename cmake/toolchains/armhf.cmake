# SPDX-License-Identifier: Apache-2.0
# Cross build for Debian's armhf: cmake -DCMAKE_TOOLCHAIN_FILE=<this file>
# -DCMAKE_SYSROOT=<sysroot>; `make cross ARCH=armhf` does all of it.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(WIDGETENGINE_TRIPLET arm-linux-gnueabihf)
set(WIDGETENGINE_QEMU qemu-arm)
# GCC notes, on every std::vector of a struct, that GCC 7.1 changed how such
# arguments are passed; everything here is built by one later compiler.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
