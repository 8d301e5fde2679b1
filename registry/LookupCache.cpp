// SPDX-License-Identifier: Apache-2.0
#include "registry/LookupCache.h"

#include <sqlite3.h>
#include <time.h>

#include "registry/ChangeCounter.h"
#include "registry/Statements.h"

LookupCache::LookupCache()
    : state_(kEmpty),
      counter_(0),
      db_(nullptr),
      seen_(0),
      lookedAt_(-1),
      filesBytes_(0) {}

LookupCache::~LookupCache() = default;

bool LookupCache::stamp(sqlite3* db, uint32_t& value, bool insideRead) {
  // Inside a transaction the connection sees its own uncommitted writes,
  // which the counter does not reflect.
  if (!insideRead && !sqlite3_get_autocommit(db)) return false;
  return header_.readCounter(db, value);
}

// True when the shared counter says that no engine has committed since the
// header was last read, and that was within this second: what another
// program may have written meanwhile is seen at the next second at the
// latest.
bool LookupCache::unchangedSinceLastLook(ChangeCounter* shared, time_t second) {
  return shared && shared->attached() && state_ != kEmpty &&
         shared->read() == seen_ && second == lookedAt_;
}

time_t LookupCache::coarseSecond() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

bool LookupCache::look(sqlite3* db, ChangeCounter* shared, time_t second) {
  // Inside a transaction the connection sees its own uncommitted writes,
  // which neither counter reflects.
  if (!sqlite3_get_autocommit(db)) return false;
  if (db != db_) {
    forget();
    db_ = db;
  }
  if (second < 0) second = coarseSecond();
  if (unchangedSinceLastLook(shared, second)) return state_ == kLoaded;
  if (shared && second != lookedAt_) shared->revalidate();
  // Read before the header: a commit after this read moves the counter
  // again, and the next call looks at the header again.
  const uint32_t seen = shared ? shared->read() : 0;
  // An engine moves the counter just before some commits too (an update,
  // whose files change with its rows): the header does not show those yet,
  // and the rows are read again, which waits for that commit.
  const bool moved = shared && shared->attached() && seen != seen_;
  uint32_t header = 0;
  if (!header_.readCounter(db, header)) {
    lookedAt_ = -1;
    return false;
  }
  seen_ = seen;
  lookedAt_ = second;
  if (header == counter_ && !moved) {
    if (state_ == kLoaded) return true;
    if (state_ == kUnusable) return false;
  }
  return reload(db);
}

void LookupCache::forget() {
  clear();
  counter_ = 0;
  db_ = nullptr;
  lookedAt_ = -1;
  header_.close();
}

void LookupCache::clear() {
  state_ = kEmpty;
  widgets_.clear();
  files_.clear();
  filesBytes_ = 0;
}

bool LookupCache::reload(sqlite3* db) {
  clear();
  if (sqlite3_exec(db, statements::kBegin, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    return false;
  }
  bool standard = false;
  bool ok = widgets_.load(db, standard);
  // Read while the transaction still holds the read lock: no writer can
  // commit in between, so the rows and the counter belong together.
  uint32_t loadedAt = 0;
  ok = header_.readCounter(db, loadedAt) && ok;
  if (sqlite3_exec(db, statements::kCommit, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    sqlite3_exec(db, statements::kRollback, nullptr, nullptr, nullptr);
  }
  if (!ok) {
    clear();
    return false;
  }
  counter_ = loadedAt;
  sqlite3_db_release_memory(db);
  if (!standard) {
    clear();
    state_ = kUnusable;
    return false;
  }
  state_ = kLoaded;
  return true;
}

WidgetFileSet* LookupCache::filesOf(int64_t widgetId) {
  auto known = files_.find(widgetId);
  if (known != files_.end()) return known->second.get();
  if (!db_ || state_ != kLoaded) return nullptr;
  // Read in a transaction of its own, and used only if the file is still
  // what the widgets were read from.
  if (sqlite3_exec(db_, statements::kBegin, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    return nullptr;
  }
  std::unique_ptr<WidgetFileSet> set = WidgetFileSet::read(db_, widgetId);
  uint32_t now = 0;
  const bool ok = header_.readCounter(db_, now) && now == counter_ && set;
  if (sqlite3_exec(db_, statements::kCommit, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    sqlite3_exec(db_, statements::kRollback, nullptr, nullptr, nullptr);
  }
  // The pages just read are of no more use: the files are in memory now.
  sqlite3_db_release_memory(db_);
  if (!ok) {
    // The widgets in memory are older than the file: read them again at
    // the next lookup.
    if (now != counter_) state_ = kEmpty;
    return nullptr;
  }

  // The files of the widgets looked at most recently stay; past the budget
  // all are let go and read again as lookups need them.
  if (filesBytes_ + set->bytes() > kFilesBudget) {
    widgets_.dropFiles();
    files_.clear();
    filesBytes_ = 0;
  }
  filesBytes_ += set->bytes();
  WidgetFileSet* result = set.get();
  files_.emplace(widgetId, std::move(set));
  return result;
}

bool LookupCache::consider(uint32_t index, const char* path, size_t length,
                           int64_t& first, uint32_t& firstWidget, int64_t& last,
                           uint32_t& lastWidget, Copies& found) {
  WidgetIndex::Widget& w = widgets_.widget(index);
  if (!w.files) w.files = filesOf(w.id);
  if (!w.files) return false;
  const WidgetFileSet::Entry* e =
      w.files->find(path + w.dirLength, length - w.dirLength);
  if (!e) return true;
  if (firstWidget == 0 || e->first < first) {
    first = e->first;
    firstWidget = index + 1;
    found.set = w.files;
    found.entry = w.files->number(e);
    found.quoted = w.dirQuoted || e->quoted;
  }
  if (lastWidget == 0 || e->last > last) {
    last = e->last;
    lastWidget = index + 1;
  }
  return true;
}

int LookupCache::fileOwner(const char* path, size_t pathLength, int64_t& widgetId,
                           const char*& dir, size_t& dirLength, Copies* copies) {
  if (copies) *copies = Copies();
  if (state_ != kLoaded) return -1;
  int64_t first = 0, last = 0;
  uint32_t firstWidget = 0, lastWidget = 0;
  Copies found;
  // Every widget whose directory begins the path may hold the rest of it.
  const bool read = widgets_.eachOwnerOf(path, pathLength, [&](uint32_t index) {
    return consider(index, path, pathLength, first, firstWidget, last,
                    lastWidget, found);
  });
  if (!read) return -1;
  if (!firstWidget) return 0;
  const WidgetIndex::Widget& owner = widgets_.widget(firstWidget - 1);
  const WidgetIndex::Widget& lastOwner = widgets_.widget(lastWidget - 1);
  widgetId = owner.id;
  dir = widgets_.directory(lastOwner);
  dirLength = lastOwner.dirTextLength;
  // One widget alone, whose directory the caller cuts off whole, and whose
  // files are still in memory: its copies answer for hasFile().
  if (copies && firstWidget == lastWidget &&
      owner.dirTextLength == owner.dirLength && owner.files == found.set) {
    *copies = found;
  }
  return 1;
}

int LookupCache::hasFile(int64_t widgetId, const std::string& path) {
  if (state_ != kLoaded) return -1;
  const WidgetFileSet* files = filesOf(widgetId);
  if (!files) return -1;
  return files->find(path.data(), path.size()) ? 1 : 0;
}

size_t LookupCache::memoryUsed() const {
  return filesBytes_ + files_.size() * 4 * sizeof(void*) + widgets_.memoryUsed();
}
