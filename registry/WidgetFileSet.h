// SPDX-License-Identifier: Apache-2.0
// WidgetFileSet holds the widgetFiles rows of one widget id in memory: one
// entry per distinct path, with the first and last row that has it, and for
// each path the languages L for which "locales/L/<path>" is a file of the
// same widget. The lookup cache reads one when a lookup first needs the
// widget's files.
#ifndef WIDGETENGINE_WIDGETFILESET_H_
#define WIDGETENGINE_WIDGETFILESET_H_

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "registry/FlatHashTable.h"
#include "registry/KeyHash.h"

class WidgetFileSet {
 public:
  struct Entry {
    uint32_t check;
    uint32_t offset;
    uint32_t length;
    // The copies of this path: copies_[copiesBegin, copiesBegin + copiesCount).
    uint32_t copiesBegin;
    uint32_t copiesCount;
    bool quoted;  // whether the path holds a "'"
    int64_t first;
    int64_t last;
  };

  // The file rows of widgetId as db reads them now, in the caller's
  // transaction; null when the statement fails.
  static std::unique_ptr<WidgetFileSet> read(sqlite3* db, int64_t widgetId);

  // The entry of exactly this path, or null.
  const Entry* find(const char* path, size_t length) const {
    const uint32_t entry = table_.findText(
        keyhash::text(path, length), path, length,
        [this](uint32_t e) { return keyOf(entries_[e]); });
    return entry == FlatHashTable::kNone ? nullptr : &entries_[entry];
  }

  // Entries are numbered from 0 in the order of their first row.
  uint32_t number(const Entry* entry) const {
    return static_cast<uint32_t>(entry - entries_.data());
  }

  // Whether entry number entry has a copy in locale whose path a browser
  // reads as inside the widget.
  bool hasCopy(uint32_t entry, const std::string& locale) const;

  // Bytes of heap the set holds, itself included.
  size_t bytes() const;

 private:
  struct Copy {
    uint32_t offset;  // the language's bytes in text_
    uint32_t length;
    bool inside;      // whether a browser reads the copy's path as inside
  };

  keyhash::StoredKey keyOf(const Entry& e) const {
    return {e.check, text_.data() + e.offset, e.length};
  }
  void index(const std::vector<uint64_t>& hashes);
  void findCopies();

  std::string text_;
  std::vector<Entry> entries_;
  std::vector<Copy> copies_;
  FlatHashTable table_;
};

#endif  // WIDGETENGINE_WIDGETFILESET_H_
