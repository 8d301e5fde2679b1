// SPDX-License-Identifier: Apache-2.0
#include "signature/FileDigests.h"

void FileDigests::set(dev_t device, ino_t inode, const Sha256::Digest& digest) {
  digests_[std::make_pair(device, inode)] = digest;
}

const Sha256::Digest* FileDigests::find(dev_t device, ino_t inode) const {
  const auto found = digests_.find(std::make_pair(device, inode));
  return found == digests_.end() ? nullptr : &found->second;
}
