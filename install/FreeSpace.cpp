// SPDX-License-Identifier: Apache-2.0
#include "install/FreeSpace.h"

#include <sys/statvfs.h>

#include <cerrno>

bool FreeSpace::available(const std::string& dir, uint64_t* bytes) {
  std::string probe = dir;
  for (;;) {
    struct statvfs vfs;
    if (statvfs(probe.empty() ? "." : probe.c_str(), &vfs) == 0) {
      *bytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
      return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) return false;
    while (probe.size() > 1 && probe.back() == '/') probe.pop_back();
    size_t slash = probe.rfind('/');
    if (probe.empty() || probe == "/") return false;
    probe = slash == std::string::npos ? "" : probe.substr(0, slash + 1);
  }
}
