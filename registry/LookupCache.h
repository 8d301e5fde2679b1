// SPDX-License-Identifier: Apache-2.0
// LookupCache answers the two lookups that the browser makes on every page
// and resource load (the widget named by a launch URL, the widget file behind
// a path) from memory, without running a statement. It is loaded lazily from
// one connection and reloaded whenever the database's change counter, read
// from the file's header with one pread() per lookup, has moved: every
// committed write by any connection of any process moves it, so an answer is
// never stale. When the counter cannot be trusted (a file shorter than its
// header, WAL mode, an open transaction on the connection, a failed load)
// the caller runs the statements instead.
#ifndef WIDGETENGINE_LOOKUPCACHE_H_
#define WIDGETENGINE_LOOKUPCACHE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

class LookupCache {
 public:
  LookupCache();
  ~LookupCache();

  LookupCache(const LookupCache&) = delete;
  LookupCache& operator=(const LookupCache&) = delete;

  // True when the cache holds what db would read now; reloads it first when
  // the file has changed. False: answer with statements.
  bool fresh(sqlite3* db);

  // The name of the first widget (in id order) whose launch URL is url.
  bool nameByLaunchURL(const char* url, size_t length, std::string& name) const;
  bool nameByLaunchURL(const std::string& url, std::string& name) const {
    return nameByLaunchURL(url.data(), url.size(), name);
  }

  // The widget file whose directory and path, joined, equal path: the id of
  // the widget of the first such file row and the directory (up to its first
  // NUL byte) of the widget of the last one, in the order the rows were
  // written. dir points into the cache and is valid until the next fresh().
  bool fileOwner(const std::string& path, int64_t& widgetId, const char*& dir,
                 size_t& dirLength) const;

  // Whether a file row of widgetId has exactly path ("locales/..." paths
  // only are kept).
  bool hasLocalizedFile(int64_t widgetId, const std::string& path) const;

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
  struct Widget;
  struct Join;
  struct Local;
  // An open-addressing table of entry numbers + 1 (0 = free slot).
  struct Table {
    std::vector<uint32_t> slots;
    uint32_t mask = 0;
    void reset(size_t entries);
  };

  bool readCounter(sqlite3* db, uint32_t& value);
  bool reload(sqlite3* db);
  bool load(sqlite3* db, bool& standard);
  void clear();

  uint32_t addText(const unsigned char* text, size_t length);
  int64_t findJoin(const char* key, size_t length, uint64_t hash) const;

  enum State { kEmpty, kLoaded, kUnusable };
  State state_;
  uint32_t counter_;
  int fd_;  // the registry file, for reading its header

  std::vector<char> arena_;
  std::vector<Widget> widgets_;
  std::vector<Join> joins_;
  std::vector<Local> locals_;
  Table byLaunchURL_;
  Table byFile_;
  Table byLocalFile_;
};

#endif  // WIDGETENGINE_LOOKUPCACHE_H_
