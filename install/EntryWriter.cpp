// SPDX-License-Identifier: Apache-2.0
#include "install/EntryWriter.h"

#include <unistd.h>

#include <cerrno>

#include "signature/Sha256.h"

namespace {

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

uLong crc32Of(uLong crc, const char* data, size_t size) {
  // zlib takes at most a uInt at a time.
  while (size > 0) {
    const uInt chunk = size < (1u << 30) ? static_cast<uInt>(size) : (1u << 30);
    crc = crc32(crc, reinterpret_cast<const Bytef*>(data), chunk);
    data += chunk;
    size -= chunk;
  }
  return crc;
}

}  // namespace

bool EntryWriter::write(const char* data, size_t size) {
  if (size > left_) {
    errno = EFBIG;
    return false;
  }
  left_ -= size;
  if (checksum_) crc_ = crc32Of(crc_, data, size);
  if (!writeAll(fd_, data, size)) return false;
  if (digest_) digest_->add(data, size);
  return true;
}
