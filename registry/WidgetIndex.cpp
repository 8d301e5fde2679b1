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
    const unsigned char* dir = sqlite3_column_text(s, 1);
    w.hasDir = dir != nullptr;
    if (dir) {
      size_t length = static_cast<size_t>(sqlite3_column_bytes(s, 1));
      w.dirOffset = addText(dir, length);
      w.dirLength = static_cast<uint32_t>(length);
      w.dirTextLength = static_cast<uint32_t>(strnlen(
          reinterpret_cast<const char*>(dir), length));
      w.dirQuoted = memchr(dir, '\'', length) != nullptr;
    }
    const unsigned char* launch = sqlite3_column_text(s, 2);
    w.hasLaunchURL = launch != nullptr;
    if (launch) {
      size_t length = static_cast<size_t>(sqlite3_column_bytes(s, 2));
      w.launchOffset = addText(launch, length);
      w.launchLength = static_cast<uint32_t>(length);
    }
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

  indexLaunchURLs();
  indexDirectories();
  arena_.shrink_to_fit();
  widgets_.shrink_to_fit();
  return true;
}

void WidgetIndex::indexLaunchURLs() {
  byLaunchURL_.reset(widgets_.size());
  for (uint32_t i = 0; i < widgets_.size(); ++i) {
    Widget& w = widgets_[i];
    if (!w.hasLaunchURL) continue;
    const char* key = arena_.data() + w.launchOffset;
    const uint64_t hash = keyhash::text(key, w.launchLength);
    w.launchCheck = keyhash::check(hash);
    // A launch URL given twice is left to the earlier row, which answers.
    byLaunchURL_.insert(hash, i, [&](uint32_t e) {
      const Widget& other = widgets_[e];
      return other.launchCheck == w.launchCheck &&
             keyhash::sameText(arena_.data() + other.launchOffset,
                               other.launchLength, key, w.launchLength);
    });
  }
}

void WidgetIndex::indexDirectories() {
  byDirectory_.reset(widgets_.size());
  for (uint32_t i = 0; i < widgets_.size(); ++i) {
    Widget& w = widgets_[i];
    if (!w.hasDir) continue;
    const char* dir = arena_.data() + w.dirOffset;
    if (w.dirLength == 0 || dir[w.dirLength - 1] != '/') {
      otherDirs_.push_back(i);
      continue;
    }
    dirLengths_.push_back(w.dirLength);
    const uint64_t hash = keyhash::directory(dir, w.dirLength);
    w.dirCheck = keyhash::check(hash);
    const uint32_t holder = byDirectory_.insert(hash, i, [&](uint32_t e) {
      const Widget& other = widgets_[e];
      return other.dirCheck == w.dirCheck &&
             keyhash::sameText(arena_.data() + other.dirOffset, other.dirLength,
                               dir, w.dirLength);
    });
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
  const uint64_t hash = keyhash::text(url, length);
  const uint32_t want = keyhash::check(hash);
  const uint32_t found = byLaunchURL_.find(hash, [&](uint32_t e) {
    const Widget& w = widgets_[e];
    return w.launchCheck == want &&
           keyhash::sameText(arena_.data() + w.launchOffset, w.launchLength, url, length);
  });
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
