// SPDX-License-Identifier: Apache-2.0
// EntryUnpacker writes the entries of one package below one base folder,
// one entry at a time, and says what each came to without saying it to
// anyone: the caller writes the lines, in entry order, whichever thread did
// the work. Each thread has its own unpacker, as the open folders and the
// buffers are not shared; the package reader is.
#ifndef WIDGETENGINE_ENTRYUNPACKER_H_
#define WIDGETENGINE_ENTRYUNPACKER_H_

#include <sys/types.h>
#include <zip.h>

#include <cstddef>
#include <memory>

#include "install/FolderWalker.h"
#include "install/UnpackPlan.h"
#include "signature/Sha256.h"

class FileDigests;
class ZipReader;

// What unpacking one entry came to.
struct UnpackOutcome {
  enum Kind { kDone, kFolderFailed, kWriteFailed, kDamaged };
  Kind kind = kDone;
  int error = 0;  // an errno, for the failures that carry one
  // With digests asked for, a file written whole: the SHA-256 of its bytes
  // as written, and the device and inode of the file they went to.
  bool digested = false;
  Sha256::Digest digest{};
  dev_t device = 0;
  ino_t inode = 0;

  // Puts the digest, if there is one, in digests (when not null).
  void keepDigest(FileDigests* digests) const;
};

class EntryUnpacker {
 public:
  // baseFd and baseError as FolderWalker takes them; baseLength is how much
  // of each task's full path the base stands for.
  EntryUnpacker(int baseFd, int baseError, size_t baseLength,
                const ZipReader& package);
  EntryUnpacker(const EntryUnpacker&) = delete;
  EntryUnpacker& operator=(const EntryUnpacker&) = delete;

  // From now on, each file's outcome carries the digest of what was
  // written to it. Off, as by default, nothing is digested.
  void setDigesting(bool on);

  // entry is libzip's reader of a file entry that is not spanned.
  UnpackOutcome unpack(const UnpackTask& task, zip_file_t* entry);

 private:
  static UnpackOutcome failed(UnpackOutcome::Kind kind, int error);

  FolderWalker folders_;
  const size_t baseLength_;
  const ZipReader& package_;
  std::unique_ptr<char[]> buffer_;
  std::unique_ptr<unsigned char[]> input_;
  std::unique_ptr<Sha256> digest_;
};

#endif  // WIDGETENGINE_ENTRYUNPACKER_H_
