// SPDX-License-Identifier: Apache-2.0
// EntryWriter writes the next bytes of an entry, never letting the entry grow
// beyond the size its directory record declares: that size is what the
// free-space check counted, and an archive whose data holds more (a stored
// entry whose sizes disagree, a deflate stream that inflates further than
// announced) would otherwise fill the disk. Such an entry fails as a write that
// found the file full would, with EFBIG. When asked, it keeps the CRC-32 of
// what was written, so that a damaged entry is known once its last byte is
// out, and the SHA-256 digest of it for the signature check.
#ifndef WIDGETENGINE_ENTRYWRITER_H_
#define WIDGETENGINE_ENTRYWRITER_H_

#include <zlib.h>

#include <cstddef>
#include <cstdint>

class Sha256;

class EntryWriter {
 public:
  // fd is the caller's, open for writing; declared is the entry's size.
  // Every byte written goes to digest too, when there is one (the caller's,
  // restarted). Without checksum the CRC-32 is not summed: an unpacking
  // that will not check it saves a pass over every byte.
  EntryWriter(int fd, uint64_t declared, Sha256* digest = nullptr,
              bool checksum = true)
      : fd_(fd), left_(declared), checksum_(checksum), digest_(digest) {}

  // Writes size bytes whole; false with errno set when they cannot be
  // written or would pass the declared size (EFBIG).
  bool write(const char* data, size_t size);
  // True when every declared byte was written and they sum to crc; never
  // for a writer that sums nothing.
  bool matches(uint32_t crc) const {
    return checksum_ && left_ == 0 && crc_ == crc;
  }

 private:
  int fd_;
  uint64_t left_;
  bool checksum_;
  uLong crc_ = 0;
  Sha256* digest_;
};

#endif  // WIDGETENGINE_ENTRYWRITER_H_
