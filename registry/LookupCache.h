// SPDX-License-Identifier: Apache-2.0
// LookupCache answers the two lookups that the browser makes on every page
// and resource load (the widget named by a launch URL, the widget file behind
// a path) from memory, without running a statement. The widgets are loaded
// from one connection at the first lookup and again whenever the registry
// has changed; the files of a widget when a lookup first needs them.
// Whether the registry has changed is known from the shared ChangeCounter,
// which every engine moves after each commit, and, at least once a second
// and whenever there is no such counter, from the change counter in the
// file's header, which every SQLite commit of any program moves. When the
// header cannot be trusted (a file shorter than its header, WAL mode, an
// open transaction on the connection, a failed load) the caller runs the
// statements instead.
// The widgets' rows are a WidgetIndex, read whole at a load; each widget's
// files a WidgetFileSet, read when a lookup first needs them and let go past
// a budget. This class decides when they may answer and joins their answers.
#ifndef WIDGETENGINE_LOOKUPCACHE_H_
#define WIDGETENGINE_LOOKUPCACHE_H_

#include <sqlite3.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "registry/ChangeCounter.h"
#include "registry/DatabaseHeader.h"
#include "registry/WidgetFileSet.h"
#include "registry/WidgetIndex.h"

class LookupCache {
 public:
  LookupCache();
  ~LookupCache();

  LookupCache(const LookupCache&) = delete;
  LookupCache& operator=(const LookupCache&) = delete;

  // True when the cache holds what db would read now; reloads it first when
  // the file has changed. False: answer with statements. shared, when
  // given, is the registry's counter of commits (see ChangeCounter); without
  // it the file's header is read at every call.
  // second: the caller's reading of coarseSecond(), if it has one.
  bool fresh(sqlite3* db, ChangeCounter* shared = nullptr, time_t second = -1) {
    // The case of nearly every lookup, kept inline: nothing committed by an
    // engine since the header was read this second.
    if (state_ == kLoaded && second >= 0 && second == lookedAt_ && db == db_ &&
        shared && shared->attached() && shared->read() == seen_ &&
        sqlite3_get_autocommit(db)) {
      return true;
    }
    return look(db, shared, second);
  }

  // The monotonic clock's second, read without a system call.
  static time_t coarseSecond();

  // The name of the first widget (in id order) whose launch URL is url.
  bool nameByLaunchURL(const char* url, size_t length, std::string& name) const {
    return widgets_.nameByLaunchURL(url, length, name);
  }
  bool nameByLaunchURL(const std::string& url, std::string& name) const {
    return nameByLaunchURL(url.data(), url.size(), name);
  }

  // The widget file whose directory and path, joined, equal path: the id of
  // the widget of the first such file row and the directory (up to its first
  // NUL byte) of the widget of the last one, in the order the rows were
  // written. dir points into the cache and is valid until the next fresh().
  // 1: found, 0: no such file, -1: the widget's files could not be read in
  // step with the rest (answer with statements).
  // copies, when given, is set when one widget alone has the file and the
  // directory given back is all of its own: then hasCopy() answers for
  // hasFile() on "locales/<language>/<the rest of path>".
  struct Copies {
    const WidgetFileSet* set = nullptr;
    uint32_t entry = 0;
    // Whether path holds a "'", told from the directory and file texts it
    // was found equal to, so that the caller need not read it again.
    bool quoted = false;
    explicit operator bool() const { return set != nullptr; }
  };
  int fileOwner(const char* path, size_t length, int64_t& widgetId,
                const char*& dir, size_t& dirLength, Copies* copies = nullptr);
  int fileOwner(const std::string& path, int64_t& widgetId, const char*& dir,
                size_t& dirLength, Copies* copies = nullptr) {
    return fileOwner(path.data(), path.size(), widgetId, dir, dirLength, copies);
  }

  // Whether the file that fileOwner() found has a copy in locale whose path
  // a browser reads as inside the widget. Valid until the next call of any
  // other method.
  bool hasCopy(const Copies& copies, const std::string& locale) const {
    return copies.set->hasCopy(copies.entry, locale);
  }

  // Whether a file row of widgetId has exactly path: 1 yes, 0 no, -1 as
  // above.
  int hasFile(int64_t widgetId, const std::string& path);

  // The change counter when it can be trusted to tell whether db would read
  // something else now than when the counter had this value (see fresh());
  // false otherwise. Lets other snapshots of the file share the check.
  // insideRead: the caller holds a read transaction of its own on db and
  // wants the counter of what that transaction reads.
  bool stamp(sqlite3* db, uint32_t& value, bool insideRead = false);

  // Drops the index and the file it was read from, as for a new connection.
  void forget();

  // Bytes of heap that the loaded index holds.
  size_t memoryUsed() const;

 private:
  bool reload(sqlite3* db);
  void clear();
  bool unchangedSinceLastLook(ChangeCounter* shared, time_t second);
  bool look(sqlite3* db, ChangeCounter* shared, time_t second);

  // The files of a widget id, read on first use; null when they cannot be.
  WidgetFileSet* filesOf(int64_t widgetId);
  // Adds what the files of widget number index say of the file at path.
  bool consider(uint32_t index, const char* path, size_t length,
                int64_t& first, uint32_t& firstWidget, int64_t& last,
                uint32_t& lastWidget, Copies& found);

  // Bytes of widget files kept in memory at most: as much as SQLite's own
  // page cache, so that a browser that looks at every widget of a large
  // registry holds no more than the statements would.
  static constexpr size_t kFilesBudget = 1 << 20;

  enum State { kEmpty, kLoaded, kUnusable };
  State state_;
  uint32_t counter_;  // the header's counter when the widgets were read
  DatabaseHeader header_;  // the registry file, for reading its counter
  sqlite3* db_;       // the connection the widgets were read from
  uint32_t seen_;     // the shared counter when the header was last read
  time_t lookedAt_;   // the second (monotonic) the header was last read

  WidgetIndex widgets_;
  std::unordered_map<int64_t, std::unique_ptr<WidgetFileSet>> files_;
  size_t filesBytes_;
};

#endif  // WIDGETENGINE_LOOKUPCACHE_H_
