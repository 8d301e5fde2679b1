// SPDX-License-Identifier: Apache-2.0
#include "signature/PackageTree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "base/ScopedFd.h"

namespace {

// Well beyond what the unpacker lets a package hold.
const int kDeepest = 64;
const size_t kMostFiles = 200000;

struct DirClose {
  void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

bool PackageTree::read(int folderFd, std::string* reason) {
  files_.clear();
  inodes_.clear();
  const int fd = openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    *reason = std::string("the package folder cannot be read: ") + strerror(errno);
    return false;
  }
  return readFolder(fd, std::string(), 0, reason);
}

// Takes fd over.
bool PackageTree::readFolder(int fd, const std::string& prefix, int depth,
                             std::string* reason) {
  std::unique_ptr<DIR, DirClose> dir(fdopendir(fd));
  if (!dir) {
    close(fd);
    *reason = "the folder " + prefix + " cannot be read: " + strerror(errno);
    return false;
  }
  if (depth > kDeepest) {
    *reason = "folders nested too deep at " + prefix;
    return false;
  }
  errno = 0;
  while (struct dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = prefix + name;
    struct stat st;
    if (fstatat(dirfd(dir.get()), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      *reason = "cannot look at " + path + ": " + strerror(errno);
      return false;
    }
    if (S_ISREG(st.st_mode)) {
      if (files_.size() >= kMostFiles) {
        *reason = "more files than any package holds";
        return false;
      }
      files_.insert(path);
      inodes_[path] = std::make_pair(st.st_dev, st.st_ino);
    } else if (S_ISDIR(st.st_mode)) {
      const int child = openat(dirfd(dir.get()), name.c_str(),
                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child < 0) {
        *reason = "the folder " + path + " cannot be read: " + strerror(errno);
        return false;
      }
      if (!readFolder(child, path + "/", depth + 1, reason)) return false;
    } else {
      *reason = path + (S_ISLNK(st.st_mode) ? " is a link" : " is not a plain file");
      return false;
    }
    errno = 0;
  }
  if (errno != 0) {
    *reason = "the folder " + prefix + " cannot be read: " + strerror(errno);
    return false;
  }
  return true;
}

int PackageTree::openFile(int folderFd, const std::string& path) {
  ScopedFd current(-1);
  int at = folderFd;
  size_t start = 0;
  while (true) {
    const size_t slash = path.find('/', start);
    const std::string name = path.substr(start, slash == std::string::npos
                                                    ? std::string::npos
                                                    : slash - start);
    if (name.empty() || name == "." || name == ".." ||
        name.find('\0') != std::string::npos) {
      errno = EINVAL;
      return -1;
    }
    if (slash == std::string::npos) {
      const int fd = openat(at, name.c_str(),
                            O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) return -1;
      struct stat st;
      if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        errno = EINVAL;
        return -1;
      }
      return fd;
    }
    const int next = openat(at, name.c_str(),
                            O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) return -1;
    current.reset(next);
    at = next;
    start = slash + 1;
  }
}
