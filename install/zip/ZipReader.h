// SPDX-License-Identifier: Apache-2.0
// ZipReader: the package file read in bounded pieces, with the data span of
// each entry found through its own central directory. libzip stays the judge of
// the archive (opening, consistency, names, the checks); this reader only lets
// the data of stored and deflated entries go to the disk without the buffer
// layers of a read through libzip. Nothing of the package is mapped or held
// whole: memory stays the same whatever the package's size. Any entry that this
// simple reader does not fully understand, or on which it disagrees with
// libzip, is read through libzip instead.
#ifndef WIDGETENGINE_ZIP_ZIPREADER_H_
#define WIDGETENGINE_ZIP_ZIPREADER_H_

#include <zip.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class ZipReader {
 public:
  // Reads the central directory of the package at path; a package it cannot
  // read leaves every entry to libzip.
  explicit ZipReader(const std::string& path);
  ~ZipReader();
  ZipReader(const ZipReader&) = delete;
  ZipReader& operator=(const ZipReader&) = delete;

  // Where the compressed bytes of entry index lie in the file, when they can
  // be used directly: stored or deflated, not encrypted, and described alike
  // by libzip.
  bool span(zip_int64_t index, const zip_stat_t& stat, uint64_t* at,
            uint64_t* length, uint16_t* method) const;

  // Reads size bytes at offset, whole. Safe from several threads at once
  // (pread): the helper thread of an extraction reads through the same
  // reader.
  bool readAt(uint64_t offset, unsigned char* data, size_t size) const;

 private:
  struct Entry {
    uint16_t flags;
    uint16_t method;
    uint32_t crc;
    uint64_t compressedSize;
    uint64_t size;
    uint64_t localOffset;
    std::string name;
  };

  // Fills entries_ from the end-of-central-directory record; leaves it empty
  // for anything unusual (archives of the 64-bit format, several disks).
  void readDirectory();

  int fd_ = -1;
  uint64_t size_ = 0;
  std::vector<Entry> entries_;
};

#endif  // WIDGETENGINE_ZIP_ZIPREADER_H_
