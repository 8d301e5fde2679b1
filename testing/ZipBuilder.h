// SPDX-License-Identifier: Apache-2.0
// ZipBuilder writes zip packages for tests and benchmarks with libzip's
// writing side: files (stored or deflated), folder entries, names given byte
// by byte, encrypted entries and large runs of zeros made on the fly.
//
//   ZipBuilder zip;
//   zip.addFile("config.xml", xml).addFolder("images/");
//   ASSERT_TRUE(zip.write(dir.file("clock.wgt")));
#ifndef WIDGETENGINE_TESTING_ZIPBUILDER_H_
#define WIDGETENGINE_TESTING_ZIPBUILDER_H_

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

class ZipBuilder {
 public:
  // How an entry's data is kept: as it is, deflated at a level (1..9) or
  // with libzip's default, or compressed with bzip2.
  static constexpr int kStored = 0;
  static constexpr int kDeflateDefault = -1;
  static constexpr int kBzip2 = -2;

  ZipBuilder() = default;
  ZipBuilder(const ZipBuilder&) = delete;
  ZipBuilder& operator=(const ZipBuilder&) = delete;

  // name is stored as given (raw bytes).
  ZipBuilder& addFile(const std::string& name, const std::string& data,
                      int compression = kDeflateDefault);
  // name should end with "/".
  ZipBuilder& addFolder(const std::string& name);
  // AES-256 encrypted with password.
  ZipBuilder& addEncryptedFile(const std::string& name, const std::string& data,
                               const std::string& password);
  // size zero bytes, deflated, produced while writing (nothing is held).
  ZipBuilder& addZeros(const std::string& name, uint64_t size);

  size_t entryCount() const { return entries_.size(); }

  // Writes the archive to path (replacing it). With no entries, writes a
  // valid empty archive (an end-of-central-directory record alone). Returns
  // false, with the reason on standard error, when libzip fails.
  bool write(const std::string& path) const;

 private:
  enum class Kind { kFile, kFolder, kEncrypted, kZeros };
  struct Entry {
    Kind kind;
    std::string name;
    std::string data;
    int compression;
    std::string password;
    uint64_t size;
  };
  std::deque<Entry> entries_;
};

#endif  // WIDGETENGINE_TESTING_ZIPBUILDER_H_
