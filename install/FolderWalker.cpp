// SPDX-License-Identifier: Apache-2.0
#include "install/FolderWalker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/TrustedPath.h"

int FolderWalker::openBase(const std::string& dir) {
  std::string last;
  std::string untrusted;
  const int parent = TrustedPath::walkToParent(dir.empty() ? "." : dir, &last,
                                               &untrusted);
  if (parent < 0) return -1;
  const int fd = openat(parent, last.c_str(),
                        O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  const int error = errno;
  close(parent);
  errno = error;
  return fd;
}

FolderWalker::~FolderWalker() {
  truncate(0);
  closeDeep();
}

int FolderWalker::open(const std::string& relative, int* error, int* created) {
  *created = 0;
  closeDeep();
  std::vector<std::string> parts;
  size_t start = 0;
  while (start < relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    if (end > start) parts.push_back(relative.substr(start, end - start));
    start = end + 1;
  }
  if (baseFd_ < 0) {
    // The base is there (it was made) but is no folder: nothing below it
    // can be made, while a path naming the base alone counts as made.
    *error = baseError_;
    if (!parts.empty()) *created = baseError_;
    return -1;
  }
  size_t common = 0;
  while (common < parts.size() && common < names_.size() &&
         parts[common] == names_[common]) {
    ++common;
  }
  truncate(common);
  int current = common == 0 ? baseFd_ : fds_[common - 1];
  for (size_t i = common; i < parts.size(); ++i) {
    const char* name = parts[i].c_str();
    *created = mkdirat(current, name, 0755) == 0 || errno == EEXIST ? 0 : errno;
    int fd = openat(current, name,
                    O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
      // Something other than a folder (or a link) in place of the last
      // component still counts as made, as mkdir says; anything deeper
      // cannot be made without going through it. A file below fails as
      // opening its path would: the folder is missing or not a folder.
      *error = errno;
      if (i + 1 != parts.size()) *created = *error;
      return -1;
    }
    if (i == fds_.size() && i < kMaxChain) {
      names_.push_back(parts[i]);
      fds_.push_back(fd);
    } else {
      // Very deep folders are walked with one descriptor at a time, so
      // that no archive can exhaust the process's descriptors.
      closeDeep();
      deepFd_ = fd;
    }
    current = fd;
  }
  return current;
}

void FolderWalker::truncate(size_t keep) {
  while (fds_.size() > keep) {
    close(fds_.back());
    fds_.pop_back();
    names_.pop_back();
  }
}
void FolderWalker::closeDeep() {
  if (deepFd_ >= 0) close(deepFd_);
  deepFd_ = -1;
}
