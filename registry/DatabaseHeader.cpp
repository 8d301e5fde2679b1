// SPDX-License-Identifier: Apache-2.0
#include "registry/DatabaseHeader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

namespace {

// Offsets in the database header: the file change counter and the read and
// write format versions (2 = WAL, where commits leave the counter alone).
// The header is read up to the end of the counter.
constexpr size_t kChangeCounterOffset = 24;
constexpr size_t kWriteVersionOffset = 18;
constexpr size_t kReadVersionOffset = 19;
constexpr size_t kHeaderRead = kChangeCounterOffset + 4;

}  // namespace

DatabaseHeader::~DatabaseHeader() { close(); }

void DatabaseHeader::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

// The header is read with pread() on a descriptor kept open, not through a
// mapping: another process may truncate the file at any moment, and reading
// a mapped page that is no longer backed by the file raises SIGBUS, which
// would take the browser down. A short read simply makes the counter
// untrusted, and the statements answer.
bool DatabaseHeader::readCounter(sqlite3* db, uint32_t& value) {
  if (fd_ < 0) {
    const char* file = sqlite3_db_filename(db, "main");
    if (!file || !*file) return false;
    fd_ = open(file, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return false;
  }
  unsigned char header[kHeaderRead];
  if (pread(fd_, header, sizeof header, 0) !=
      static_cast<ssize_t>(sizeof header)) {
    return false;
  }
  if (header[kWriteVersionOffset] == 2 || header[kReadVersionOffset] == 2) {
    return false;
  }
  const unsigned char* c = header + kChangeCounterOffset;
  value = (uint32_t{c[0]} << 24) | (uint32_t{c[1]} << 16) |
          (uint32_t{c[2]} << 8) | uint32_t{c[3]};
  return true;
}
