// SPDX-License-Identifier: Apache-2.0
#include "install/zip/ZipReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

uint16_t get16(const unsigned char* at) {
  return static_cast<uint16_t>(at[0] | (at[1] << 8));
}
uint32_t get32(const unsigned char* at) {
  return static_cast<uint32_t>(get16(at)) |
         (static_cast<uint32_t>(get16(at + 2)) << 16);
}

}  // namespace

ZipReader::ZipReader(const std::string& path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) return;
  struct stat info;
  if (fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size <= 0)
    return;
  size_ = static_cast<uint64_t>(info.st_size);
  posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
  readDirectory();
}

ZipReader::~ZipReader() {
  if (fd_ >= 0) close(fd_);
}

bool ZipReader::span(zip_int64_t index, const zip_stat_t& stat, uint64_t* at,
                     uint64_t* length, uint16_t* method) const {
  if (index < 0 || static_cast<size_t>(index) >= entries_.size()) return false;
  const Entry& entry = entries_[static_cast<size_t>(index)];
  // The same entry as libzip's, down to its name and checksum: an archive
  // that could be read two ways (two end records, say) is left to libzip.
  const zip_uint64_t need = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE |
                            ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC |
                            ZIP_STAT_NAME;
  if ((stat.valid & need) != need || stat.comp_method != entry.method ||
      stat.comp_size != entry.compressedSize || stat.size != entry.size ||
      stat.crc != entry.crc || !stat.name || stat.name != entry.name) {
    return false;
  }
  if (entry.method != ZIP_CM_STORE && entry.method != ZIP_CM_DEFLATE) {
    return false;
  }
  if (entry.method == ZIP_CM_STORE && entry.size != entry.compressedSize) {
    return false;
  }
  if ((entry.flags & 1) != 0) return false;  // encrypted
  const uint64_t local = entry.localOffset;
  unsigned char header[30];
  if (local > size_ || size_ - local < 30 ||
      !readAt(local, header, sizeof header) || get32(header) != 0x04034b50) {
    return false;
  }
  const uint64_t start = local + 30 + get16(header + 26) + get16(header + 28);
  if (start > size_ || size_ - start < entry.compressedSize) return false;
  *at = start;
  *length = entry.compressedSize;
  *method = entry.method;
  return true;
}

bool ZipReader::readAt(uint64_t offset, unsigned char* data, size_t size) const {
  while (size > 0) {
    const ssize_t n = pread(fd_, data, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

void ZipReader::readDirectory() {
  if (size_ < 22) return;
  const uint64_t tailSize = size_ < 22 + 65535 ? size_ : 22 + 65535;
  std::vector<unsigned char> tail(static_cast<size_t>(tailSize));
  const uint64_t tailStart = size_ - tailSize;
  if (!readAt(tailStart, tail.data(), tail.size())) return;
  size_t end = tail.size() - 22;
  for (;; --end) {
    if (get32(&tail[end]) == 0x06054b50) break;
    if (end == 0) return;
  }
  const uint32_t count = get16(&tail[end + 10]);
  const uint64_t directorySize = get32(&tail[end + 12]);
  const uint64_t directoryStart = get32(&tail[end + 16]);
  if (count == 0xffff || directoryStart == 0xffffffffu ||
      directoryStart > size_ || size_ - directoryStart < directorySize) {
    return;
  }
  // Only the directory itself is held: a few dozen bytes an entry.
  std::vector<unsigned char> directory(static_cast<size_t>(directorySize));
  if (!readAt(directoryStart, directory.data(), directory.size())) return;
  std::vector<Entry> entries;
  entries.reserve(count);
  size_t at = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (directory.size() - at < 46 || get32(&directory[at]) != 0x02014b50)
      return;
    const unsigned char* record = &directory[at];
    Entry entry;
    entry.flags = get16(record + 8);
    entry.method = get16(record + 10);
    entry.crc = get32(record + 16);
    entry.compressedSize = get32(record + 20);
    entry.size = get32(record + 24);
    entry.localOffset = get32(record + 42);
    const size_t nameLength = get16(record + 28);
    const size_t recordSize = 46 + nameLength + get16(record + 30) +
                              static_cast<size_t>(get16(record + 32));
    if (directory.size() - at < recordSize) return;
    entry.name.assign(reinterpret_cast<const char*>(record + 46), nameLength);
    if (entry.compressedSize == 0xffffffffu || entry.size == 0xffffffffu ||
        entry.localOffset == 0xffffffffu) {
      entry.method = 0xffff;  // sizes live in a 64-bit extra field
    }
    entries.push_back(std::move(entry));
    at += recordSize;
  }
  entries_.swap(entries);
}
