// SPDX-License-Identifier: Apache-2.0
// WidgetIndex holds what the lookups need of the Widgets table's rows (id,
// directory, launch URL, name), read with one statement, with a table by
// launch URL and one by directory. It answers which widget a launch URL
// names and which widgets' directories begin a path; each widget's files
// are read apart (WidgetFileSet) and only hung on it here.
#ifndef WIDGETENGINE_WIDGETINDEX_H_
#define WIDGETENGINE_WIDGETINDEX_H_

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "registry/FlatHashTable.h"
#include "registry/KeyHash.h"

class WidgetFileSet;

class WidgetIndex {
 public:
  struct Widget {
    int64_t id;
    uint32_t dirOffset;      // storagePath bytes in the arena
    uint32_t dirLength;      // all of them (what a join concatenates)
    uint32_t dirTextLength;  // up to the first NUL (what a reader gets back)
    uint32_t launchOffset;
    uint32_t launchLength;
    uint32_t nameOffset;
    uint32_t nameLength;
    uint32_t launchCheck;
    uint32_t dirCheck;
    uint32_t sameDir;  // the next widget (+ 1) with the same directory, or 0
    bool hasDir;
    bool dirQuoted;  // whether the directory holds a "'"
    bool hasLaunchURL;
    WidgetFileSet* files;  // once read; owned by the caller
  };

  // Reads the rows of db's Widgets table, in the caller's transaction, and
  // indexes them; false when a statement fails. standard tells whether the
  // three tables are as this engine creates them: the index reproduces the
  // lookups' answers for that shape alone, and reads no rows of any other.
  bool load(sqlite3* db, bool& standard);

  // Lets go of every row, as before load().
  void clear();

  // The name of the first widget (in id order) whose launch URL is url.
  bool nameByLaunchURL(const char* url, size_t length, std::string& name) const;

  // Calls visit(number) for every widget whose directory begins path, in no
  // particular order; stops and gives back false as soon as a visit does.
  template <typename Visit>
  bool eachOwnerOf(const char* path, size_t pathLength, Visit visit) const;

  Widget& widget(uint32_t number) { return widgets_[number]; }
  const Widget& widget(uint32_t number) const { return widgets_[number]; }
  const char* directory(const Widget& w) const { return arena_.data() + w.dirOffset; }

  // Drops every widget's hold on its files (their owner let them go).
  void dropFiles() {
    for (Widget& w : widgets_) w.files = nullptr;
  }

  // Bytes of heap the rows and tables hold.
  size_t memoryUsed() const;

 private:
  keyhash::StoredKey launchKey(const Widget& w) const {
    return {w.launchCheck, arena_.data() + w.launchOffset, w.launchLength};
  }
  keyhash::StoredKey dirKey(const Widget& w) const {
    return {w.dirCheck, arena_.data() + w.dirOffset, w.dirLength};
  }
  uint32_t addText(const unsigned char* text, size_t length);
  const unsigned char* addColumn(sqlite3_stmt* row, int column, uint32_t& offset,
                                 uint32_t& length);
  void index();

  std::vector<char> arena_;
  std::vector<Widget> widgets_;
  FlatHashTable byLaunchURL_;
  FlatHashTable byDirectory_;          // directories that end in '/'
  std::vector<uint32_t> dirLengths_;   // their lengths, ascending, once each
  std::vector<uint32_t> otherDirs_;    // every other directory
};

template <typename Visit>
bool WidgetIndex::eachOwnerOf(const char* path, size_t pathLength, Visit visit) const {
  // Directories that end in '/' (all that the engine writes) are found by
  // hashing the path up to each length that one has; the others are few and
  // compared one by one.
  for (const uint32_t length : dirLengths_) {
    if (length > pathLength) break;
    if (path[length - 1] != '/') continue;
    const uint32_t found =
        byDirectory_.findText(keyhash::directory(path, length), path, length,
                              [this](uint32_t e) { return dirKey(widgets_[e]); });
    if (found == FlatHashTable::kNone) continue;
    for (uint32_t i = found + 1; i; i = widgets_[i - 1].sameDir) {
      if (!visit(i - 1)) return false;
    }
  }
  for (const uint32_t number : otherDirs_) {
    const Widget& w = widgets_[number];
    // An arena of empty texts has no storage at all, and memcmp() may not
    // be handed a null pointer even for no bytes.
    if (w.dirLength <= pathLength &&
        (w.dirLength == 0 || memcmp(arena_.data() + w.dirOffset, path, w.dirLength) == 0) &&
        !visit(number)) {
      return false;
    }
  }
  return true;
}

#endif  // WIDGETENGINE_WIDGETINDEX_H_
