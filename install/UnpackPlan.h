// SPDX-License-Identifier: Apache-2.0
// UnpackTask is one entry of a package as the write pass needs it, and
// UnpackPlan decides whether the entries of a package may be written in any
// order (and so on two threads) with the same result as in archive order.
#ifndef WIDGETENGINE_UNPACKPLAN_H_
#define WIDGETENGINE_UNPACKPLAN_H_

#include <zip.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class ZipReader;

struct UnpackTask {
  // The entry at index of the archive, whose stat libzip gave, to be written
  // at targetDir + its name.
  static UnpackTask of(zip_int64_t index, const zip_stat_t& stat,
                       const std::string& targetDir, const ZipReader& package);

  zip_int64_t index = 0;
  std::string name;  // as the archive spells it
  std::string full;  // the target directory and the name
  bool isFolder = false;
  uint64_t size = 0;
  bool hasCrc = false;
  uint32_t crc = 0;
  // Where the entry's data lies in the package, when the reader can take
  // it from there itself (spanned); otherwise it is read through libzip.
  bool spanned = false;
  uint64_t at = 0;
  uint64_t length = 0;
  uint16_t method = 0;
};

// Entries a package written on two threads takes before all others, and
// what is done as soon as they are all written: whenWritten runs once, on
// one of the writing threads, with the names of those entries (files only)
// while the other entries are being written. Lines, files and refusals are those
// of the archive's order all the same.
struct FirstEntries {
  std::function<bool(const std::string& name)> chosen;
  std::function<void(const std::vector<std::string>& names)> whenWritten;
};

class UnpackPlan {
 public:
  // Fills tasks when the entries can be written in any order with the same
  // result: at least 16 of them (below that a second thread costs more than
  // it saves), every name plain ("a/b/c", no empty or "." part, a path the
  // system accepts), no two entries naming the same file nor a file where
  // another entry needs a folder (names compared regardless of case), and
  // every file's data readable without libzip. Anything else is unpacked
  // entry after entry, so that it ends exactly as its order says.
  static bool inAnyOrder(zip_t* archive, zip_int64_t count,
                         const std::string& targetDir, const ZipReader& package,
                         std::vector<UnpackTask>* tasks);
};

#endif  // WIDGETENGINE_UNPACKPLAN_H_
