// SPDX-License-Identifier: Apache-2.0
#include "registry/LookupCache.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <cstring>

#include "base/UrlPath.h"
#include "registry/ChangeCounter.h"
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
    // The last bytes: a byte-wise copy of a variable length would be a call
    // to memcpy().
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    h = mix(h ^ v ^ (static_cast<uint64_t>(n) << 59));
  }
  return mix(h);
}

// Directories differ in their last bytes (the widget's name) and share
// the rest (the widget root): their hash takes the length and the last 16
// bytes only, which a lookup computes for every directory length that
// could begin its path. Equal hashes are told apart by comparing the text.
uint64_t hashDirectory(const char* p, size_t n) {
  if (n < 16) return hashBytes(p, n, 0);
  uint64_t a, b;
  memcpy(&a, p + n - 16, 8);
  memcpy(&b, p + n - 8, 8);
  return mix(mix((n * 0x9e3779b97f4a7c15ULL) ^ a) + b);
}

// Slot of a hash in a table; the other 32 bits are kept in the entry to
// reject most mismatches without touching the text.
inline uint32_t check(uint64_t hash) { return static_cast<uint32_t>(hash >> 32); }

// Compared here rather than by memcmp(): the texts are a few tens of bytes,
// where the call costs more than the comparison.
bool sameText(const char* a, size_t aLength, const char* b, size_t bLength) {
  if (aLength != bLength) return false;
  size_t n = aLength;
  while (n >= 8) {
    uint64_t x, y;
    memcpy(&x, a, 8);
    memcpy(&y, b, 8);
    if (x != y) return false;
    a += 8;
    b += 8;
    n -= 8;
  }
  while (n > 0) {
    if (*a++ != *b++) return false;
    --n;
  }
  return true;
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
  uint32_t dirCheck;
  uint32_t sameDir;  // the next widget (+ 1) with the same directory, or 0
  bool hasDir;
  bool dirQuoted;  // whether the directory holds a "'"
  bool hasLaunchURL;
  FileSet* files;  // once read
};

// The file rows of one widget id, one entry per distinct path with the
// first and last row that has it.
struct LookupCache::FileSet {
  struct Entry {
    uint32_t check;
    uint32_t offset;
    uint32_t length;
    // The languages L for which "locales/L/<this path>" is a file of the
    // same widget: copies[copiesBegin, copiesBegin + copiesCount).
    uint32_t copiesBegin;
    uint32_t copiesCount;
    bool quoted;  // whether the path holds a "'"
    int64_t first;
    int64_t last;
  };
  struct Copy {
    uint32_t offset;  // the language's bytes in text
    uint32_t length;
    bool inside;      // whether a browser reads the copy's path as inside
  };
  std::string text;
  std::vector<Entry> entries;
  std::vector<Copy> copies;
  Table table;

  size_t bytes() const {
    return sizeof(FileSet) + text.capacity() + entries.capacity() * sizeof(Entry) +
           copies.capacity() * sizeof(Copy) + table.slots.capacity() * sizeof(uint32_t);
  }

  const Entry* find(const char* path, size_t length) const {
    const uint64_t hash = hashBytes(path, length, 0);
    const uint32_t want = check(hash);
    uint32_t slot = static_cast<uint32_t>(hash) & table.mask;
    while (uint32_t entry = table.slots[slot]) {
      const Entry& e = entries[entry - 1];
      if (e.check == want && sameText(text.data() + e.offset, e.length, path, length))
        return &e;
      slot = (slot + 1) & table.mask;
    }
    return nullptr;
  }
};

void LookupCache::Table::reset(size_t entries) {
  size_t size = 16;
  while (size < entries * 2) size <<= 1;
  slots.assign(size, 0);
  slots.shrink_to_fit();
  mask = static_cast<uint32_t>(size - 1);
}

LookupCache::LookupCache()
    : state_(kEmpty),
      counter_(0),
      fd_(-1),
      db_(nullptr),
      seen_(0),
      lookedAt_(-1),
      filesBytes_(0) {}

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
  uint32_t header = 0;
  if (!readCounter(db, header)) {
    lookedAt_ = -1;
    return false;
  }
  seen_ = seen;
  lookedAt_ = second;
  if (header == counter_) {
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
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void LookupCache::clear() {
  state_ = kEmpty;
  std::vector<char>().swap(arena_);
  std::vector<Widget>().swap(widgets_);
  byLaunchURL_ = Table();
  byDirectory_ = Table();
  std::vector<uint32_t>().swap(dirLengths_);
  std::vector<uint32_t>().swap(otherDirs_);
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
  sqlite3_db_release_memory(db);
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

  // Directories, for finding the widgets whose directory begins a path.
  // Those that end in '/' (all that the engine writes) are found by hashing
  // the path up to each of its slashes; the others are few and compared
  // one by one.
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
    const uint64_t hash = hashDirectory(dir, w.dirLength);
    w.dirCheck = check(hash);
    uint32_t slot = static_cast<uint32_t>(hash) & byDirectory_.mask;
    bool chained = false;
    while (uint32_t entry = byDirectory_.slots[slot]) {
      Widget& other = widgets_[entry - 1];
      if (other.dirCheck == w.dirCheck &&
          sameText(arena_.data() + other.dirOffset, other.dirLength, dir,
                   w.dirLength)) {
        // The same bytes twice (a text and a blob): both join.
        w.sameDir = other.sameDir;
        other.sameDir = i + 1;
        chained = true;
        break;
      }
      slot = (slot + 1) & byDirectory_.mask;
    }
    if (!chained) byDirectory_.slots[slot] = i + 1;
  }
  std::sort(dirLengths_.begin(), dirLengths_.end());
  dirLengths_.erase(std::unique(dirLengths_.begin(), dirLengths_.end()),
                    dirLengths_.end());
  dirLengths_.shrink_to_fit();
  otherDirs_.shrink_to_fit();
  arena_.shrink_to_fit();
  widgets_.shrink_to_fit();
  return true;
}

LookupCache::FileSet* LookupCache::filesOf(int64_t widgetId) {
  auto known = files_.find(widgetId);
  if (known != files_.end()) return known->second.get();
  if (!db_ || state_ != kLoaded) return nullptr;
  // Read in a transaction of its own, and used only if the file is still
  // what the widgets were read from.
  if (sqlite3_exec(db_, statements::kBegin, nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    return nullptr;
  }
  std::unique_ptr<FileSet> set(new FileSet);
  std::vector<uint64_t> hashes;
  sqlite3_stmt* stmt = nullptr;
  bool ok = sqlite3_prepare_v2(db_, statements::kIndexFilesOfWidget, -1, &stmt,
                               nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_bind_int64(stmt, 1, widgetId);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      const unsigned char* path = sqlite3_column_text(stmt, 1);
      if (!path) continue;
      const size_t length = static_cast<size_t>(sqlite3_column_bytes(stmt, 1));
      const int64_t row = sqlite3_column_int64(stmt, 0);
      FileSet::Entry e = {0, static_cast<uint32_t>(set->text.size()),
                          static_cast<uint32_t>(length), 0, 0,
                          memchr(path, '\'', length) != nullptr, row, row};
      set->text.append(reinterpret_cast<const char*>(path), length);
      hashes.push_back(hashBytes(reinterpret_cast<const char*>(path), length, 0));
      e.check = check(hashes.back());
      set->entries.push_back(e);
    }
    ok = rc == SQLITE_DONE;
  }
  sqlite3_finalize(stmt);
  uint32_t now = 0;
  ok = readCounter(db_, now) && now == counter_ && ok;
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

  // One entry per path; a repeated path widens its entry's row span.
  FileSet& files = *set;
  files.table.reset(files.entries.size());
  std::vector<FileSet::Entry> kept;
  kept.reserve(files.entries.size());
  for (size_t i = 0; i < files.entries.size(); ++i) {
    const FileSet::Entry& e = files.entries[i];
    uint32_t slot = static_cast<uint32_t>(hashes[i]) & files.table.mask;
    bool merged = false;
    while (uint32_t entry = files.table.slots[slot]) {
      FileSet::Entry& other = kept[entry - 1];
      if (other.check == e.check &&
          sameText(files.text.data() + other.offset, other.length,
                   files.text.data() + e.offset, e.length)) {
        other.first = std::min(other.first, e.first);
        other.last = std::max(other.last, e.last);
        merged = true;
        break;
      }
      slot = (slot + 1) & files.table.mask;
    }
    if (!merged) {
      kept.push_back(e);
      files.table.slots[slot] = static_cast<uint32_t>(kept.size());
    }
  }
  kept.shrink_to_fit();
  files.entries.swap(kept);
  files.text.shrink_to_fit();
  findCopies(files);

  // The files of the widgets looked at most recently stay; past the budget
  // all are let go and read again as lookups need them.
  if (filesBytes_ + files.bytes() > kFilesBudget) {
    for (Widget& w : widgets_) w.files = nullptr;
    files_.clear();
    filesBytes_ = 0;
  }
  filesBytes_ += files.bytes();
  FileSet* result = set.get();
  files_.emplace(widgetId, std::move(set));
  return result;
}

// Every way of reading a path "locales/L/R" as a copy in language L of a
// file R that the widget has: L may hold slashes itself.
void LookupCache::findCopies(FileSet& files) {
  static const char kLocales[] = "locales/";
  const size_t prefix = sizeof kLocales - 1;
  struct Found {
    uint32_t entry;
    FileSet::Copy copy;
  };
  std::vector<Found> found;
  for (const FileSet::Entry& e : files.entries) {
    const char* path = files.text.data() + e.offset;
    if (e.length <= prefix || memcmp(path, kLocales, prefix) != 0) continue;
    for (size_t k = prefix; k < e.length; ++k) {
      if (path[k] != '/') continue;
      const FileSet::Entry* original = files.find(path + k + 1, e.length - k - 1);
      if (!original) continue;
      found.push_back({static_cast<uint32_t>(original - files.entries.data()),
                       {static_cast<uint32_t>(e.offset + prefix),
                        static_cast<uint32_t>(k - prefix),
                        UrlPath::staysInside(path, e.length)}});
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const Found& a, const Found& b) { return a.entry < b.entry; });
  files.copies.reserve(found.size());
  for (const Found& f : found) {
    FileSet::Entry& e = files.entries[f.entry];
    if (e.copiesCount == 0) e.copiesBegin = static_cast<uint32_t>(files.copies.size());
    ++e.copiesCount;
    files.copies.push_back(f.copy);
  }
}

bool LookupCache::hasCopy(const Copies& copies, const std::string& locale) const {
  const FileSet::Entry& e = copies.set->entries[copies.entry];
  for (uint32_t i = 0; i < e.copiesCount; ++i) {
    const FileSet::Copy& c = copies.set->copies[e.copiesBegin + i];
    if (sameText(copies.set->text.data() + c.offset, c.length, locale.data(),
                 locale.size())) {
      return c.inside;
    }
  }
  return false;
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

bool LookupCache::consider(uint32_t index, const char* path, size_t length,
                           int64_t& first, uint32_t& firstWidget, int64_t& last,
                           uint32_t& lastWidget, Copies& found) {
  Widget& w = widgets_[index];
  if (!w.files) w.files = filesOf(w.id);
  if (!w.files) return false;
  const FileSet::Entry* e =
      w.files->find(path + w.dirLength, length - w.dirLength);
  if (!e) return true;
  if (firstWidget == 0 || e->first < first) {
    first = e->first;
    firstWidget = index + 1;
    found.set = w.files;
    found.entry = static_cast<uint32_t>(e - w.files->entries.data());
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
  for (const uint32_t length : dirLengths_) {
    if (length > pathLength) break;
    if (path[length - 1] != '/') continue;
    const uint64_t hash = hashDirectory(path, length);
    const uint32_t want = check(hash);
    uint32_t slot = static_cast<uint32_t>(hash) & byDirectory_.mask;
    while (uint32_t entry = byDirectory_.slots[slot]) {
      const Widget& w = widgets_[entry - 1];
      if (w.dirCheck == want &&
          sameText(arena_.data() + w.dirOffset, w.dirLength, path, length)) {
        for (uint32_t i = entry; i; i = widgets_[i - 1].sameDir) {
          if (!consider(i - 1, path, pathLength, first, firstWidget,
                        last, lastWidget, found)) {
            return -1;
          }
        }
        break;
      }
      slot = (slot + 1) & byDirectory_.mask;
    }
  }
  for (const uint32_t index : otherDirs_) {
    const Widget& w = widgets_[index];
    if (w.dirLength <= pathLength &&
        memcmp(arena_.data() + w.dirOffset, path, w.dirLength) == 0 &&
        !consider(index, path, pathLength, first, firstWidget, last,
                  lastWidget, found)) {
      return -1;
    }
  }
  if (!firstWidget) return 0;
  const Widget& owner = widgets_[firstWidget - 1];
  const Widget& lastOwner = widgets_[lastWidget - 1];
  widgetId = owner.id;
  dir = arena_.data() + lastOwner.dirOffset;
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
  const FileSet* files = filesOf(widgetId);
  if (!files) return -1;
  return files->find(path.data(), path.size()) ? 1 : 0;
}

size_t LookupCache::memoryUsed() const {
  return filesBytes_ + files_.size() * 4 * sizeof(void*) + arena_.capacity() +
         widgets_.capacity() * sizeof(Widget) +
         (byLaunchURL_.slots.capacity() + byDirectory_.slots.capacity() +
          dirLengths_.capacity() + otherDirs_.capacity()) *
             sizeof(uint32_t);
}
