// SPDX-License-Identifier: Apache-2.0
#include "registry/LookupCache.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <unordered_map>

#include "registry/Statements.h"

namespace {

// Offsets in the database header: the file change counter and the read and
// write format versions (2 = WAL, where commits leave the counter alone).
// The header is read up to the end of the counter.
constexpr size_t kChangeCounterOffset = 24;
constexpr size_t kWriteVersionOffset = 18;
constexpr size_t kReadVersionOffset = 19;
constexpr size_t kHeaderRead = kChangeCounterOffset + 4;

inline uint64_t mix(uint64_t h) {
  h ^= h >> 32;
  h *= 0xd6e8feb86659fd93ULL;
  h ^= h >> 32;
  return h;
}

// A word-at-a-time hash; keys are paths and URLs of some tens of bytes.
uint64_t hashBytes(const char* p, size_t n, uint64_t seed) {
  uint64_t h = (seed + n) * 0x9e3779b97f4a7c15ULL;
  while (n >= 8) {
    uint64_t v;
    memcpy(&v, p, 8);
    h = mix(h ^ v) + 0x9e3779b97f4a7c15ULL;
    p += 8;
    n -= 8;
  }
  if (n > 0) {
    uint64_t v = 0;
    memcpy(&v, p, n);
    h = mix(h ^ v ^ (static_cast<uint64_t>(n) << 59));
  }
  return mix(h);
}

// Slot of a hash in a table; the other 32 bits are kept in the entry to
// reject most mismatches without touching the text.
inline uint32_t check(uint64_t hash) { return static_cast<uint32_t>(hash >> 32); }

bool sameText(const char* a, size_t aLength, const char* b, size_t bLength) {
  return aLength == bLength && (aLength == 0 || memcmp(a, b, aLength) == 0);
}

}  // namespace

struct LookupCache::Widget {
  int64_t id;
  uint32_t dirOffset;      // storagePath bytes in the arena
  uint32_t dirLength;      // all of them (what a join concatenates)
  uint32_t dirTextLength;  // up to the first NUL (what a reader gets back)
  uint32_t launchOffset;
  uint32_t launchLength;
  uint32_t nameOffset;
  uint32_t nameLength;
  uint32_t launchCheck;
  bool hasDir;
  bool hasLaunchURL;
};

struct LookupCache::Join {
  uint32_t check;
  uint32_t first;  // widget of the first file row with this key
  uint32_t last;   // widget of the last one
  uint32_t pathOffset;
  uint32_t pathLength;
};

struct LookupCache::Local {
  int64_t widgetId;
  uint32_t check;
  uint32_t pathOffset;
  uint32_t pathLength;
};

void LookupCache::Table::reset(size_t entries) {
  size_t size = 16;
  while (size < entries * 2) size <<= 1;
  slots.assign(size, 0);
  slots.shrink_to_fit();
  mask = static_cast<uint32_t>(size - 1);
}

LookupCache::LookupCache() : state_(kEmpty), counter_(0), fd_(-1) {}

LookupCache::~LookupCache() {
  if (fd_ >= 0) close(fd_);
}

// The header is read with pread() on a descriptor kept open, not through a
// mapping: another process may truncate the file at any moment, and reading
// a mapped page that is no longer backed by the file raises SIGBUS, which
// would take the browser down. A short read simply makes the counter
// untrusted, and the statements answer.
bool LookupCache::readCounter(sqlite3* db, uint32_t& value) {
  if (fd_ < 0) {
    const char* file = sqlite3_db_filename(db, "main");
    if (!file || !*file) return false;
    fd_ = open(file, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return false;
  }
  unsigned char header[kHeaderRead];
  if (pread(fd_, header, sizeof header, 0) !=
      static_cast<ssize_t>(sizeof header)) {
    return false;
  }
  if (header[kWriteVersionOffset] == 2 || header[kReadVersionOffset] == 2) {
    return false;
  }
  const unsigned char* c = header + kChangeCounterOffset;
  value = (uint32_t{c[0]} << 24) | (uint32_t{c[1]} << 16) |
          (uint32_t{c[2]} << 8) | uint32_t{c[3]};
  return true;
}

bool LookupCache::stamp(sqlite3* db, uint32_t& value, bool insideRead) {
  // Inside a transaction the connection sees its own uncommitted writes,
  // which the counter does not reflect.
  if (!insideRead && !sqlite3_get_autocommit(db)) return false;
  return readCounter(db, value);
}

bool LookupCache::fresh(sqlite3* db) {
  uint32_t now = 0;
  if (!stamp(db, now)) return false;
  if (now == counter_) {
    if (state_ == kLoaded) return true;
    if (state_ == kUnusable) return false;
  }
  return reload(db);
}

void LookupCache::forget() {
  clear();
  counter_ = 0;
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void LookupCache::clear() {
  state_ = kEmpty;
  std::vector<char>().swap(arena_);
  std::vector<Widget>().swap(widgets_);
  std::vector<Join>().swap(joins_);
  std::vector<Local>().swap(locals_);
  byLaunchURL_ = Table();
  byFile_ = Table();
  byLocalFile_ = Table();
}

bool LookupCache::reload(sqlite3* db) {
  clear();
  if (sqlite3_exec(db, statements::kBegin, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    return false;
  }
  bool standard = false;
  bool ok = load(db, standard);
  // Read while the transaction still holds the read lock: no writer can
  // commit in between, so the rows and the counter belong together.
  uint32_t loadedAt = 0;
  ok = readCounter(db, loadedAt) && ok;
  if (sqlite3_exec(db, statements::kCommit, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    sqlite3_exec(db, statements::kRollback, nullptr, nullptr, nullptr);
  }
  if (!ok) {
    clear();
    return false;
  }
  counter_ = loadedAt;
  if (!standard) {
    clear();
    state_ = kUnusable;
    return false;
  }
  state_ = kLoaded;
  return true;
}

uint32_t LookupCache::addText(const unsigned char* text, size_t length) {
  uint32_t offset = static_cast<uint32_t>(arena_.size());
  if (length) arena_.insert(arena_.end(), text, text + length);
  return offset;
}

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

bool LookupCache::load(sqlite3* db, bool& standard) {
  // The index reproduces the lookups' answers for the three tables as this
  // engine creates them; for any other shape the statements answer.
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

  std::unordered_map<int64_t, uint32_t> widgetById;
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
    widgetById.emplace(w.id, static_cast<uint32_t>(widgets_.size()));
    widgets_.push_back(w);
    return true;
  });
  if (!ok) return false;

  byLaunchURL_.reset(widgets_.size());
  for (uint32_t i = 0; i < widgets_.size(); ++i) {
    Widget& w = widgets_[i];
    if (!w.hasLaunchURL) continue;
    const char* key = arena_.data() + w.launchOffset;
    uint64_t hash = hashBytes(key, w.launchLength, 0);
    w.launchCheck = check(hash);
    uint32_t slot = static_cast<uint32_t>(hash) & byLaunchURL_.mask;
    bool duplicate = false;
    while (uint32_t entry = byLaunchURL_.slots[slot]) {
      const Widget& other = widgets_[entry - 1];
      if (other.launchCheck == w.launchCheck &&
          sameText(arena_.data() + other.launchOffset, other.launchLength, key,
                   w.launchLength)) {
        duplicate = true;  // the earlier row answers
        break;
      }
      slot = (slot + 1) & byLaunchURL_.mask;
    }
    if (!duplicate) byLaunchURL_.slots[slot] = i + 1;
  }

  // File rows, in the order they were written. Each becomes (at most) one
  // join entry keyed by directory + path and, under "locales/", one entry
  // keyed by widget id + path.
  std::string key;
  std::vector<uint64_t> joinHashes;
  std::vector<uint64_t> localHashes;
  static const char kLocales[] = "locales/";
  ok = eachRow(db, statements::kIndexFiles, [&](sqlite3_stmt* s) {
    if (sqlite3_column_type(s, 0) != SQLITE_INTEGER) return true;
    const unsigned char* path = sqlite3_column_text(s, 1);
    if (!path) return true;
    int64_t widgetId = sqlite3_column_int64(s, 0);
    size_t length = static_cast<size_t>(sqlite3_column_bytes(s, 1));
    bool local = length >= sizeof(kLocales) - 1 &&
                 memcmp(path, kLocales, sizeof(kLocales) - 1) == 0;
    auto owner = widgetById.find(widgetId);
    bool joins = owner != widgetById.end() && widgets_[owner->second].hasDir;
    if (!local && !joins) return true;
    uint32_t pathOffset = addText(path, length);
    if (local) {
      Local l = {widgetId, 0, pathOffset, static_cast<uint32_t>(length)};
      localHashes.push_back(hashBytes(arena_.data() + pathOffset, length,
                                      static_cast<uint64_t>(widgetId)));
      l.check = check(localHashes.back());
      locals_.push_back(l);
    }
    if (joins) {
      const Widget& w = widgets_[owner->second];
      key.assign(arena_.data() + w.dirOffset, w.dirLength);
      key.append(arena_.data() + pathOffset, length);
      Join j = {0, owner->second, owner->second, pathOffset,
                static_cast<uint32_t>(length)};
      joinHashes.push_back(hashBytes(key.data(), key.size(), 0));
      j.check = check(joinHashes.back());
      joins_.push_back(j);
    }
    return true;
  });
  if (!ok) return false;

  byFile_.reset(joins_.size());
  std::vector<Join> merged;
  merged.reserve(joins_.size());
  for (size_t i = 0; i < joins_.size(); ++i) {
    const Join& j = joins_[i];
    const Widget& w = widgets_[j.first];
    key.assign(arena_.data() + w.dirOffset, w.dirLength);
    key.append(arena_.data() + j.pathOffset, j.pathLength);
    uint64_t hash = joinHashes[i];
    uint32_t slot = static_cast<uint32_t>(hash) & byFile_.mask;
    bool seen = false;
    while (uint32_t entry = byFile_.slots[slot]) {
      Join& other = merged[entry - 1];
      const Widget& ow = widgets_[other.first];
      if (other.check == j.check &&
          key.size() == static_cast<size_t>(ow.dirLength) + other.pathLength &&
          memcmp(key.data(), arena_.data() + ow.dirOffset, ow.dirLength) == 0 &&
          memcmp(key.data() + ow.dirLength, arena_.data() + other.pathOffset,
                 other.pathLength) == 0) {
        other.last = j.first;  // a later row with the same key
        seen = true;
        break;
      }
      slot = (slot + 1) & byFile_.mask;
    }
    if (!seen) {
      merged.push_back(j);
      byFile_.slots[slot] = static_cast<uint32_t>(merged.size());
    }
  }
  merged.shrink_to_fit();
  joins_.swap(merged);

  byLocalFile_.reset(locals_.size());
  for (size_t i = 0; i < locals_.size(); ++i) {
    uint32_t slot = static_cast<uint32_t>(localHashes[i]) & byLocalFile_.mask;
    // Equal entries are harmless: a lookup only asks whether one exists.
    while (byLocalFile_.slots[slot]) slot = (slot + 1) & byLocalFile_.mask;
    byLocalFile_.slots[slot] = static_cast<uint32_t>(i + 1);
  }

  arena_.shrink_to_fit();
  widgets_.shrink_to_fit();
  locals_.shrink_to_fit();
  return true;
}

bool LookupCache::nameByLaunchURL(const char* url, size_t length,
                                  std::string& name) const {
  if (byLaunchURL_.slots.empty()) return false;
  uint64_t hash = hashBytes(url, length, 0);
  uint32_t want = check(hash);
  uint32_t slot = static_cast<uint32_t>(hash) & byLaunchURL_.mask;
  while (uint32_t entry = byLaunchURL_.slots[slot]) {
    const Widget& w = widgets_[entry - 1];
    if (w.launchCheck == want &&
        sameText(arena_.data() + w.launchOffset, w.launchLength, url,
                 length)) {
      name.assign(arena_.data() + w.nameOffset, w.nameLength);
      return true;
    }
    slot = (slot + 1) & byLaunchURL_.mask;
  }
  return false;
}

bool LookupCache::fileOwner(const std::string& path, int64_t& widgetId,
                            const char*& dir, size_t& dirLength) const {
  if (byFile_.slots.empty()) return false;
  uint64_t hash = hashBytes(path.data(), path.size(), 0);
  uint32_t want = check(hash);
  uint32_t slot = static_cast<uint32_t>(hash) & byFile_.mask;
  while (uint32_t entry = byFile_.slots[slot]) {
    const Join& j = joins_[entry - 1];
    if (j.check == want) {
      const Widget& w = widgets_[j.first];
      if (path.size() == static_cast<size_t>(w.dirLength) + j.pathLength &&
          memcmp(path.data(), arena_.data() + w.dirOffset, w.dirLength) == 0 &&
          memcmp(path.data() + w.dirLength, arena_.data() + j.pathOffset,
                 j.pathLength) == 0) {
        const Widget& last = widgets_[j.last];
        widgetId = w.id;
        dir = arena_.data() + last.dirOffset;
        dirLength = last.dirTextLength;
        return true;
      }
    }
    slot = (slot + 1) & byFile_.mask;
  }
  return false;
}

bool LookupCache::hasLocalizedFile(int64_t widgetId,
                                   const std::string& path) const {
  if (byLocalFile_.slots.empty()) return false;
  uint64_t hash =
      hashBytes(path.data(), path.size(), static_cast<uint64_t>(widgetId));
  uint32_t want = check(hash);
  uint32_t slot = static_cast<uint32_t>(hash) & byLocalFile_.mask;
  while (uint32_t entry = byLocalFile_.slots[slot]) {
    const Local& l = locals_[entry - 1];
    if (l.check == want && l.widgetId == widgetId &&
        sameText(arena_.data() + l.pathOffset, l.pathLength, path.data(),
                 path.size())) {
      return true;
    }
    slot = (slot + 1) & byLocalFile_.mask;
  }
  return false;
}

size_t LookupCache::memoryUsed() const {
  return arena_.capacity() + widgets_.capacity() * sizeof(Widget) +
         joins_.capacity() * sizeof(Join) + locals_.capacity() * sizeof(Local) +
         (byLaunchURL_.slots.capacity() + byFile_.slots.capacity() +
          byLocalFile_.slots.capacity()) *
             sizeof(uint32_t);
}
