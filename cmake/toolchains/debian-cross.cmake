# SPDX-License-Identifier: Apache-2.0
# Shared part of the cross toolchain files beside it: Debian's cross compiler
# for WIDGETENGINE_TRIPLET, headers and libraries from CMAKE_SYSROOT (made by
# tools/cross-sysroot.sh), and qemu-user to run what was built, the tests
# included. The file of an architecture sets the triplet, the processor and
# qemu's name, then includes this one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${WIDGETENGINE_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${WIDGETENGINE_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${WIDGETENGINE_TRIPLET})

if(NOT CMAKE_SYSROOT)
  message(FATAL_ERROR "Set CMAKE_SYSROOT to a sysroot of ${WIDGETENGINE_TRIPLET} (tools/cross-sysroot.sh makes one)")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the sysroot's .pc files only and prefixes their paths.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  "${CMAKE_SYSROOT}/usr/lib/${WIDGETENGINE_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# -L: the program's loader and every library it loads come from the sysroot,
# never from the host's multiarch or cross-toolchain copies (two glibc
# builds in one process hang at the first thread).
set(CMAKE_CROSSCOMPILING_EMULATOR ${WIDGETENGINE_QEMU} -L ${CMAKE_SYSROOT})
