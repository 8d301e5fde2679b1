// SPDX-License-Identifier: Apache-2.0
// EntryReader is how the linter reads a package: MappedFile maps the whole
// file read-only and gives libzip handles on the mapped bytes, and readAll()
// reads a list of entries (whole, so that libzip checks each checksum, or
// only their first bytes), on two threads when that pays.
#ifndef WIDGETENGINE_LINT_ENTRYREADER_H_
#define WIDGETENGINE_LINT_ENTRYREADER_H_

#include <zip.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct ZipClose {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};

// A read-only view of the whole package file. Reading entries from memory
// spares libzip a read() and a copy per block.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  bool opened() const { return opened_; }
  const char* data() const { return static_cast<const char*>(data_); }
  size_t size() const { return size_; }

  // A libzip handle of its own on the mapped bytes; null with *error set.
  zip_t* openArchive(int* error, int flags = ZIP_RDONLY) const;

 private:
  bool opened_ = false;
  void* data_ = nullptr;
  size_t size_ = 0;
};

// One entry to read: all of it, so that libzip checks its checksum at the
// end, or (when too large) only its first bytes, for its content type.
struct ReadJob {
  zip_int64_t index;
  uint64_t size;
  bool whole;
  bool keep;  // config.xml: its text is wanted
  std::string head;
  std::string text;
  int error = ZIP_ER_OK;
  std::string message;
};

// Reads every job through archive, an open handle on file's bytes. Each
// job's head, text (when kept) and error are filled in.
void readAll(const MappedFile& file, zip_t* archive, std::vector<ReadJob>& jobs);

#endif  // WIDGETENGINE_LINT_ENTRYREADER_H_
