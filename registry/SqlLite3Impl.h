// SPDX-License-Identifier: Apache-2.0
// The inside of a registry connection, shared by the files that implement
// SqlLite3 (connection and schema, writes, lookups): the handle, the kept
// statements, the lookup cache and the helpers that bind and read values.
// Not installed; nothing outside registry/ includes it.
#ifndef WIDGETENGINE_SQLLITE3IMPL_H_
#define WIDGETENGINE_SQLLITE3IMPL_H_

#include <sqlite3.h>
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "registry/ChangeCounter.h"
#include "registry/LookupCache.h"
#include "registry/SqlLite3.h"
#include "registry/Statements.h"
#include "registry/WidgetsData.h"

namespace sqlite3impl {

const char kLevel[] = "E";
const char kModule[] = "SqlLite3";

// The number of columns of a Widgets row.
constexpr int kWidgetColumns = 15;

// How long a commit waits for readers of other connections to finish.
constexpr int kCommitRetries = 2000;  // of 1 ms each

// The statements that are prepared once per connection and kept.
enum Statement {
  kInsertWidgetStatement,
  kInsertWidgetFileStatement,
  kInsertLocalizedItemStatement,
  kDeleteWidgetByNameStatement,
  kSelectAllWidgetsStatement,
  kSelectWidgetsByNameStatement,
  kSelectWidgetsBySourceURLStatement,
  kStoragePathTakenStatement,
  kNameByLaunchURLStatement,
  kFileOwnerStatement,
  kLocalizedFileStatement,
  kLocalizedItemStatement,
  kLocalizedItemsOfWidgetStatement,
  kStatementCount
};

const char* const kStatementTexts[kStatementCount] = {
    statements::kInsertWidget,
    statements::kInsertWidgetFile,
    statements::kInsertLocalizedItem,
    statements::kDeleteWidgetByName,
    statements::kSelectAllWidgets,
    statements::kSelectWidgetsByName,
    statements::kSelectWidgetsBySourceURL,
    statements::kStoragePathTaken,
    statements::kNameByLaunchURL,
    statements::kFileOwner,
    statements::kLocalizedFile,
    statements::kLocalizedItem,
    statements::kLocalizedItemsOfWidget,
};

// A value may stand in a statement only if it could have been written
// between quote characters of that kind: one that holds the quote, or a NUL
// byte (which ends C text), would have broken the statement, so the statement
// fails instead of running with it.
inline bool quotable(const char* value, size_t length, char quote) {
  // Languages are a few bytes long, where a loop costs less than the calls.
  if (length < 16) {
    for (size_t i = 0; i < length; ++i) {
      if (value[i] == quote || value[i] == '\0') return false;
    }
    return true;
  }
  return !memchr(value, quote, length) && !memchr(value, '\0', length);
}

inline bool quotable(const std::string& value, char quote) {
  return quotable(value.data(), value.size(), quote);
}

// Text of a cell as a C string would carry it: NULL reads as empty and the
// text ends at its first NUL byte.
inline std::string cellText(sqlite3_stmt* stmt, int column) {
  const char* text =
      reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  if (!text) return std::string();
  return std::string(
      text, strnlen(text, static_cast<size_t>(sqlite3_column_bytes(stmt, column))));
}

// atoi() of the cell's text, without its undefined cases.
inline int cellInt(sqlite3_stmt* stmt, int column) {
  if (sqlite3_column_type(stmt, column) == SQLITE_INTEGER) {
    return static_cast<int>(sqlite3_column_int64(stmt, column));
  }
  const char* text =
      reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  if (!text) return 0;
  return static_cast<int>(strtol(text, nullptr, 10));
}

inline void bindText(sqlite3_stmt* stmt, int index, const std::string& value) {
  sqlite3_bind_text(stmt, index, value.data(), static_cast<int>(value.size()),
                    SQLITE_STATIC);
}

// Resets a kept statement when the operation that used it ends, so that no
// read lock outlives the operation.
class ResetOnExit {
 public:
  explicit ResetOnExit(sqlite3_stmt* stmt) : stmt_(stmt) {}
  ~ResetOnExit() {
    if (stmt_) {
      sqlite3_reset(stmt_);
      sqlite3_clear_bindings(stmt_);
    }
  }
  ResetOnExit(const ResetOnExit&) = delete;
  ResetOnExit& operator=(const ResetOnExit&) = delete;

 private:
  sqlite3_stmt* stmt_;
};

// A statement prepared for one call, for the tables that are written and
// read once per installation, removal or update check: far too seldom for
// their statements to be kept.
class OneStatement {
 public:
  OneStatement(sqlite3* db, const char* sql) {
    if (db) sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr);
  }
  ~OneStatement() { sqlite3_finalize(stmt_); }
  OneStatement(const OneStatement&) = delete;
  OneStatement& operator=(const OneStatement&) = delete;

  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

inline bool sameText(const unsigned char* text, int length, const char* s,
              size_t size) {
  return static_cast<size_t>(length) == size &&
         (size == 0 || memcmp(text, s, size) == 0);
}

}  // namespace sqlite3impl

struct SqlLite3::Impl {
  sqlite3* db = nullptr;
  char* errorMessage = nullptr;
  int resultCode = 0;
  // Why the last write was refused before SQLite saw it, when it was.
  std::string refusedBeforeSQLite;
  int rowCount = 0;
  int columnCount = 0;
  bool opened = false;
  bool verbose = false;
  bool jobOpen = false;
  struct timespec lastOpenAttempt = {0, 0};
  // The file the connection has open, and when the path was last seen to
  // name it.
  dev_t fileDevice = 0;
  ino_t fileInode = 0;
  time_t identityCheckedAt = 0;
  std::string logPrefix;
  std::string databasePath;
  std::vector<std::string> columnNames;
  std::vector<std::string> values;
  sqlite3_stmt* statements[sqlite3impl::kStatementCount] = {};
  LookupCache cache;
  // Every engine's count of commits to this file, attached when first
  // needed (a connection opened only to be closed again costs no more for
  // it), and whether this connection has committed since it last moved it.
  ChangeCounter counter;
  bool counterTried = false;
  bool committed = false;

  ChangeCounter* sharedCounter() {
    if (!counterTried && fileInode != 0) {
      counterTried = true;
      counter.attach(fileDevice, fileInode, databasePath);
    }
    return &counter;
  }
  // The rows of "SELECT * FROM Widgets" as last read, and the change counter
  // they were read under: the browser lists every widget at once, and
  // copying records costs a fraction of reading them again.
  std::vector<WidgetsData> allWidgets;
  uint32_t allWidgetsStamp = 0;
  bool allWidgetsKept = false;
  // The copies' addresses, gathered before the caller's vector is made.
  std::vector<WidgetsData*> copies;
  // Reused buffers of findLocalizedResource.
  std::string queryPart;
  std::string localPath;
  std::string directory;

  // Whether sql prepares and steps without error: a probe that reads no row.
  bool probe(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt);
    sqlite3_finalize(stmt);
    return rc == SQLITE_DONE || rc == SQLITE_ROW;
  }

  // The kept statement, prepared on first use; null when it cannot be
  // prepared (then the operation fails as its statement would).
  sqlite3_stmt* statement(sqlite3impl::Statement which) {
    if (!statements[which] && db) {
      sqlite3_prepare_v3(db, sqlite3impl::kStatementTexts[which], -1,
                         SQLITE_PREPARE_PERSISTENT, &statements[which],
                         nullptr);
    }
    return statements[which];
  }

  int exec(const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  }

  // Commits, waiting a while for other connections' readers; a commit that
  // cannot be made is rolled back. True when committed.
  bool commit() {
    int rc = exec(statements::kCommit);
    for (int i = 0; rc == SQLITE_BUSY && i < sqlite3impl::kCommitRetries;
         ++i) {
      sqlite3_sleep(1);
      rc = exec(statements::kCommit);
    }
    if (rc == SQLITE_OK) return true;
    if (!sqlite3_get_autocommit(db)) exec(statements::kRollback);
    return false;
  }

  // Moves the shared counter once the connection's commits are done, so
  // that every engine's next lookup looks at the file. Called as each write
  // operation ends, in every process before its call returns.
  void publishCommits() {
    if (committed && db && sqlite3_get_autocommit(db)) {
      sharedCounter()->bump();
      committed = false;
    }
  }

  void closeHandle() {
    for (sqlite3_stmt*& stmt : statements) {
      sqlite3_finalize(stmt);
      stmt = nullptr;
    }
    publishCommits();
    if (db) sqlite3_close_v2(db);
    db = nullptr;
    committed = false;
    counter.detach();
    counterTried = false;
  }
};

namespace sqlite3impl {

// Publishes the connection's commits when a write operation ends, on
// every path out of it.
template <typename Impl>
class PublishOnExit {
 public:
  explicit PublishOnExit(Impl* impl) : impl_(impl) {}
  ~PublishOnExit() { impl_->publishCommits(); }
  PublishOnExit(const PublishOnExit&) = delete;
  PublishOnExit& operator=(const PublishOnExit&) = delete;

 private:
  Impl* impl_;
};

// SQLite's commit hook: notes that a write transaction is committing.
template <typename Impl>
int noteCommit(void* impl) {
  static_cast<Impl*>(impl)->committed = true;
  return 0;  // let it commit
}

}  // namespace sqlite3impl

#endif  // WIDGETENGINE_SQLLITE3IMPL_H_
