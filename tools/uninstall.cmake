# SPDX-License-Identifier: Apache-2.0
# Removes every file that the last `cmake --install` of this build tree wrote,
# as listed in its install_manifest.txt. Directories are left in place: the
# registry's directory may hold registries of widgets installed since.
if(NOT EXISTS "install_manifest.txt")
  message(FATAL_ERROR "install_manifest.txt is missing: nothing was installed from this build tree")
endif()
file(STRINGS "install_manifest.txt" installed)
foreach(file ${installed})
  if(EXISTS "$ENV{DESTDIR}${file}" OR IS_SYMLINK "$ENV{DESTDIR}${file}")
    message(STATUS "Removing $ENV{DESTDIR}${file}")
    file(REMOVE "$ENV{DESTDIR}${file}")
  endif()
endforeach()
