// SPDX-License-Identifier: Apache-2.0
#include "registry/WidgetIndex.h"

#include <algorithm>

#include "registry/Statements.h"

namespace {

// Steps a statement, calling row() on each row; false when it failed.
template <typename Row>
bool eachRow(sqlite3* db, const char* sql, Row row) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return false;
  }
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    if (!row(stmt)) {
      rc = SQLITE_ABORT;
      break;
    }
  }
  sqlite3_finalize(stmt);
  return rc == SQLITE_DONE;
}

}  // namespace

uint32_t WidgetIndex::addText(const unsigned char* text, size_t length) {
  uint32_t offset = static_cast<uint32_t>(arena_.size());
  if (length) arena_.insert(arena_.end(), text, text + length);
  return offset;
}

// Keeps a text column's bytes; gives them back, or null for a NULL.
const unsigned char* WidgetIndex::addColumn(sqlite3_stmt* row, int column,
                                            uint32_t& offset, uint32_t& length) {
  const unsigned char* text = sqlite3_column_text(row, column);
  if (!text) return nullptr;
  const size_t bytes = static_cast<size_t>(sqlite3_column_bytes(row, column));
  offset = addText(text, bytes);
  length = static_cast<uint32_t>(bytes);
  return text;
}

bool WidgetIndex::load(sqlite3* db, bool& standard) {
  int matching = 0;
  bool ok = eachRow(db, statements::kSchemaTables, [&](sqlite3_stmt* s) {
    const char* name = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
    const char* sql = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
    if (!name || !sql) return true;
    if ((sqlite3_stricmp(name, "Widgets") == 0 &&
         strcmp(sql, statements::kCreateWidgets) == 0) ||
        (sqlite3_stricmp(name, "widgetFiles") == 0 &&
         strcmp(sql, statements::kCreateWidgetFiles) == 0) ||
        (sqlite3_stricmp(name, "localizedItem") == 0 &&
         strcmp(sql, statements::kCreateLocalizedItem) == 0)) {
      ++matching;
    }
    return true;
  });
  if (!ok) return false;
  standard = matching == 3;
  if (!standard) return true;

  ok = eachRow(db, statements::kIndexWidgets, [&](sqlite3_stmt* s) {
    Widget w = {};
    w.id = sqlite3_column_int64(s, 0);
    const unsigned char* dir = addColumn(s, 1, w.dirOffset, w.dirLength);
    w.hasDir = dir != nullptr;
    if (dir) {
      w.dirTextLength = static_cast<uint32_t>(strnlen(
          reinterpret_cast<const char*>(dir), w.dirLength));
      w.dirQuoted = memchr(dir, '\'', w.dirLength) != nullptr;
    }
    w.hasLaunchURL = addColumn(s, 2, w.launchOffset, w.launchLength) != nullptr;
    const unsigned char* name = sqlite3_column_text(s, 3);
    if (name) {
      size_t length = strnlen(reinterpret_cast<const char*>(name),
                              static_cast<size_t>(sqlite3_column_bytes(s, 3)));
      w.nameOffset = addText(name, length);
      w.nameLength = static_cast<uint32_t>(length);
    }
    widgets_.push_back(w);
    return true;
  });
  if (!ok) return false;

  index();
  arena_.shrink_to_fit();
  widgets_.shrink_to_fit();
  return true;
}

// Launch URLs by their whole text. Directories that end in '/' (all that the
// engine writes) by their hash as a lookup computes it on the path up to
// each of its slashes; the others are few and compared one by one.
void WidgetIndex::index() {
  byLaunchURL_.reset(widgets_.size());
  byDirectory_.reset(widgets_.size());
  for (uint32_t i = 0; i < widgets_.size(); ++i) {
    Widget& w = widgets_[i];
    if (w.hasLaunchURL) {
      const char* key = arena_.data() + w.launchOffset;
      const uint64_t hash = keyhash::text(key, w.launchLength);
      w.launchCheck = keyhash::check(hash);
      // A launch URL given twice is left to the earlier row, which answers.
      byLaunchURL_.insertText(hash, i, key, w.launchLength,
                              [this](uint32_t e) { return launchKey(widgets_[e]); });
    }
    if (!w.hasDir) continue;
    const char* dir = arena_.data() + w.dirOffset;
    if (w.dirLength == 0 || dir[w.dirLength - 1] != '/') {
      otherDirs_.push_back(i);
      continue;
    }
    dirLengths_.push_back(w.dirLength);
    const uint64_t hash = keyhash::directory(dir, w.dirLength);
    w.dirCheck = keyhash::check(hash);
    const uint32_t holder =
        byDirectory_.insertText(hash, i, dir, w.dirLength,
                                [this](uint32_t e) { return dirKey(widgets_[e]); });
    if (holder != i) {
      // The same bytes twice (a text and a blob): both join.
      Widget& other = widgets_[holder];
      w.sameDir = other.sameDir;
      other.sameDir = i + 1;
    }
  }
  std::sort(dirLengths_.begin(), dirLengths_.end());
  dirLengths_.erase(std::unique(dirLengths_.begin(), dirLengths_.end()),
                    dirLengths_.end());
  dirLengths_.shrink_to_fit();
  otherDirs_.shrink_to_fit();
}

void WidgetIndex::clear() {
  std::vector<char>().swap(arena_);
  std::vector<Widget>().swap(widgets_);
  byLaunchURL_ = FlatHashTable();
  byDirectory_ = FlatHashTable();
  std::vector<uint32_t>().swap(dirLengths_);
  std::vector<uint32_t>().swap(otherDirs_);
}

bool WidgetIndex::nameByLaunchURL(const char* url, size_t length,
                                  std::string& name) const {
  const uint32_t found =
      byLaunchURL_.findText(keyhash::text(url, length), url, length,
                            [this](uint32_t e) { return launchKey(widgets_[e]); });
  if (found == FlatHashTable::kNone) return false;
  const Widget& w = widgets_[found];
  name.assign(arena_.data() + w.nameOffset, w.nameLength);
  return true;
}

size_t WidgetIndex::memoryUsed() const {
  return arena_.capacity() + widgets_.capacity() * sizeof(Widget) +
         byLaunchURL_.memoryUsed() + byDirectory_.memoryUsed() +
         (dirLengths_.capacity() + otherDirs_.capacity()) * sizeof(uint32_t);
}
