// SPDX-License-Identifier: Apache-2.0
#include "registry/WidgetFileSet.h"

#include <algorithm>
#include <cstring>

#include "base/UrlPath.h"
#include "registry/Statements.h"

std::unique_ptr<WidgetFileSet> WidgetFileSet::read(sqlite3* db, int64_t widgetId) {
  std::unique_ptr<WidgetFileSet> set(new WidgetFileSet);
  std::vector<uint64_t> hashes;
  sqlite3_stmt* stmt = nullptr;
  bool ok = sqlite3_prepare_v2(db, statements::kIndexFilesOfWidget, -1, &stmt,
                               nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_bind_int64(stmt, 1, widgetId);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      const unsigned char* path = sqlite3_column_text(stmt, 1);
      if (!path) continue;
      const size_t length = static_cast<size_t>(sqlite3_column_bytes(stmt, 1));
      const int64_t row = sqlite3_column_int64(stmt, 0);
      Entry e = {0, static_cast<uint32_t>(set->text_.size()),
                 static_cast<uint32_t>(length), 0, 0,
                 memchr(path, '\'', length) != nullptr, row, row};
      set->text_.append(reinterpret_cast<const char*>(path), length);
      hashes.push_back(keyhash::text(reinterpret_cast<const char*>(path), length));
      e.check = keyhash::check(hashes.back());
      set->entries_.push_back(e);
    }
    ok = rc == SQLITE_DONE;
  }
  sqlite3_finalize(stmt);
  if (!ok) return nullptr;
  set->index(hashes);
  set->findCopies();
  return set;
}

// One entry per path; a repeated path widens its entry's row span.
void WidgetFileSet::index(const std::vector<uint64_t>& hashes) {
  table_.reset(entries_.size());
  std::vector<Entry> kept;
  kept.reserve(entries_.size());
  for (size_t i = 0; i < entries_.size(); ++i) {
    const Entry& e = entries_[i];
    const uint32_t next = static_cast<uint32_t>(kept.size());
    const uint32_t holder =
        table_.insertText(hashes[i], next, text_.data() + e.offset, e.length,
                          [&](uint32_t other) { return keyOf(kept[other]); });
    if (holder == next) {
      kept.push_back(e);
    } else {
      Entry& other = kept[holder];
      other.first = std::min(other.first, e.first);
      other.last = std::max(other.last, e.last);
    }
  }
  kept.shrink_to_fit();
  entries_.swap(kept);
  text_.shrink_to_fit();
}

// Every way of reading a path "locales/L/R" as a copy in language L of a
// file R that the widget has: L may hold slashes itself.
void WidgetFileSet::findCopies() {
  static const char kLocales[] = "locales/";
  const size_t prefix = sizeof kLocales - 1;
  struct Found {
    uint32_t entry;
    Copy copy;
  };
  std::vector<Found> found;
  for (const Entry& e : entries_) {
    const char* path = text_.data() + e.offset;
    if (e.length <= prefix || memcmp(path, kLocales, prefix) != 0) continue;
    for (size_t k = prefix; k < e.length; ++k) {
      if (path[k] != '/') continue;
      const Entry* original = find(path + k + 1, e.length - k - 1);
      if (!original) continue;
      found.push_back({number(original),
                       {static_cast<uint32_t>(e.offset + prefix),
                        static_cast<uint32_t>(k - prefix),
                        UrlPath::staysInside(path, e.length)}});
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const Found& a, const Found& b) { return a.entry < b.entry; });
  copies_.reserve(found.size());
  for (const Found& f : found) {
    Entry& e = entries_[f.entry];
    if (e.copiesCount == 0) e.copiesBegin = static_cast<uint32_t>(copies_.size());
    ++e.copiesCount;
    copies_.push_back(f.copy);
  }
}

bool WidgetFileSet::hasCopy(uint32_t entry, const std::string& locale) const {
  const Entry& e = entries_[entry];
  for (uint32_t i = 0; i < e.copiesCount; ++i) {
    const Copy& c = copies_[e.copiesBegin + i];
    if (keyhash::sameText(text_.data() + c.offset, c.length, locale.data(),
                          locale.size())) {
      return c.inside;
    }
  }
  return false;
}

size_t WidgetFileSet::bytes() const {
  return sizeof(WidgetFileSet) + text_.capacity() + entries_.capacity() * sizeof(Entry) +
         copies_.capacity() * sizeof(Copy) + table_.memoryUsed();
}
