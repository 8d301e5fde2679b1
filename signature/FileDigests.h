// SPDX-License-Identifier: Apache-2.0
// FileDigests holds the SHA-256 digest of each file an unpacking wrote, of
// the bytes as they were written, so that the signature check that follows
// need not read the package again. A file is known by its device and inode
// rather than by the name its entry gave: two entries that reach one file
// (a name spelt twice) leave the digest of the one written last, which is
// what the file holds.
//
//   FileDigests written;
//   extractor.setDigests(&written);
//   extractor.extract(files);
//   Verdict verdict = SignatureVerifier(anchors).verify(folder, &written);
#ifndef WIDGETENGINE_SIGNATURE_FILEDIGESTS_H_
#define WIDGETENGINE_SIGNATURE_FILEDIGESTS_H_

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <utility>

#include "signature/Sha256.h"

class FileDigests {
 public:
  // The digest of what was written to the file at (device, inode); a later
  // one for the same file replaces it.
  void set(dev_t device, ino_t inode, const Sha256::Digest& digest);
  // Null when nothing was written to that file.
  const Sha256::Digest* find(dev_t device, ino_t inode) const;
  size_t size() const { return digests_.size(); }

 private:
  std::map<std::pair<dev_t, ino_t>, Sha256::Digest> digests_;
};

#endif  // WIDGETENGINE_SIGNATURE_FILEDIGESTS_H_
