// SPDX-License-Identifier: Apache-2.0
#include "testing/FolderDigests.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "base/ScopedFd.h"
#include "signature/PackageTree.h"

namespace folderdigests {

bool take(const std::string& folder, FileDigests* digests, std::string* reason) {
  ScopedFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  PackageTree tree;
  if (fd.get() < 0) {
    *reason = folder + ": " + strerror(errno);
    return false;
  }
  if (!tree.read(fd.get(), reason)) return false;
  for (const auto& file : tree.inodes()) {
    ScopedFd in(PackageTree::openFile(fd.get(), file.first));
    Sha256::Digest digest;
    if (in.get() < 0 || !Sha256::ofFile(in.get(), &digest)) {
      *reason = file.first + ": " + strerror(errno);
      return false;
    }
    digests->set(file.second.first, file.second.second, digest);
  }
  return true;
}

}  // namespace folderdigests
