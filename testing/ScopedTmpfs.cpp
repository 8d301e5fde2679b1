// SPDX-License-Identifier: Apache-2.0
#include "testing/ScopedTmpfs.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

ScopedTmpfs::ScopedTmpfs(const std::string& path, const std::string& options)
    : path_(path) {
  if (geteuid() != 0) {
    whyNot_ = "mounting a tmpfs needs root";
  } else if (mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    whyNot_ = std::string("mount failed: ") + strerror(errno);
  }
}

ScopedTmpfs::~ScopedTmpfs() { unmount(); }

void ScopedTmpfs::unmount() {
  if (mounted() && !path_.empty()) umount2(path_.c_str(), MNT_DETACH);
  path_.clear();
}
