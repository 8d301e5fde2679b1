// SPDX-License-Identifier: Apache-2.0
#include "registry/SqlLite3.h"

#include <sqlite3.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "base/EngineOutput.h"
#include "base/TrustedPath.h"
#include "base/UrlPath.h"
#include "registry/LocalizedItemKeys.h"
#include "registry/LookupCache.h"
#include "registry/Statements.h"

namespace {

const char kLevel[] = "E";
const char kModule[] = "SqlLite3";

// The number of columns of a Widgets row.
constexpr int kWidgetColumns = 15;

// How long a commit waits for readers of other connections to finish.
constexpr int kCommitRetries = 2000;  // of 1 ms each

// How long any statement waits for a lock that another connection holds.
// Writers hold the registry's write lock for the few milliseconds of a
// commit; a lookup that met such a lock and answered at once would answer
// "no widget" for a widget that is installed, and an installer would take
// that answer as "not installed yet". Five seconds covers any commit of a
// healthy device many times over and still ends a wait on a lock that a
// hung process never gives back.
// WIDGETENGINE_BUSY_TIMEOUT_MS sets another wait (tests that hold a lock on
// purpose use a short one).
constexpr int kBusyTimeoutMs = 5000;

int busyTimeoutMs() {
  const char* value = getenv("WIDGETENGINE_BUSY_TIMEOUT_MS");
  if (!value || !*value) return kBusyTimeoutMs;
  char* end = nullptr;
  const long ms = strtol(value, &end, 10);
  if (*end != '\0' || ms < 0 || ms > INT_MAX) return kBusyTimeoutMs;
  return static_cast<int>(ms);
}

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
bool quotable(const char* value, size_t length, char quote) {
  return !memchr(value, quote, length) && !memchr(value, '\0', length);
}

bool quotable(const std::string& value, char quote) {
  return quotable(value.data(), value.size(), quote);
}

// Text of a cell as a C string would carry it: NULL reads as empty and the
// text ends at its first NUL byte.
std::string cellText(sqlite3_stmt* stmt, int column) {
  const char* text =
      reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  if (!text) return std::string();
  return std::string(
      text, strnlen(text, static_cast<size_t>(sqlite3_column_bytes(stmt, column))));
}

// atoi() of the cell's text, without its undefined cases.
int cellInt(sqlite3_stmt* stmt, int column) {
  if (sqlite3_column_type(stmt, column) == SQLITE_INTEGER) {
    return static_cast<int>(sqlite3_column_int64(stmt, column));
  }
  const char* text =
      reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  if (!text) return 0;
  return static_cast<int>(strtol(text, nullptr, 10));
}

void bindText(sqlite3_stmt* stmt, int index, const std::string& value) {
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

bool sameText(const unsigned char* text, int length, const char* s,
              size_t size) {
  return static_cast<size_t>(length) == size &&
         (size == 0 || memcmp(text, s, size) == 0);
}

}  // namespace

struct SqlLite3::Impl {
  sqlite3* db = nullptr;
  char* errorMessage = nullptr;
  int resultCode = 0;
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
  sqlite3_stmt* statements[kStatementCount] = {};
  LookupCache cache;
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
  sqlite3_stmt* statement(Statement which) {
    if (!statements[which] && db) {
      sqlite3_prepare_v3(db, kStatementTexts[which], -1,
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
    for (int i = 0; rc == SQLITE_BUSY && i < kCommitRetries; ++i) {
      sqlite3_sleep(1);
      rc = exec(statements::kCommit);
    }
    if (rc == SQLITE_OK) return true;
    if (!sqlite3_get_autocommit(db)) exec(statements::kRollback);
    return false;
  }

  void closeHandle() {
    for (sqlite3_stmt*& stmt : statements) {
      sqlite3_finalize(stmt);
      stmt = nullptr;
    }
    if (db) sqlite3_close_v2(db);
    db = nullptr;
  }
};

SqlLite3::SqlLite3() : impl(new Impl) {
  impl->logPrefix = "XXXXX SQLITE3 XXXX ==> ";
  open();
}

void SqlLite3::followReplacedFile() {
  // A connection keeps reading the file it opened, even once another file
  // has taken its name (a registry restored from a copy, or removed and
  // made anew by another process): at most once a second, the path is
  // looked at again, and a connection to a file that no longer has it
  // opens the one that does.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  if (now.tv_sec == impl->identityCheckedAt) return;
  impl->identityCheckedAt = now.tv_sec;
  struct stat status;
  if (!impl->opened || stat(impl->databasePath.c_str(), &status) != 0) return;
  if (status.st_dev == impl->fileDevice && status.st_ino == impl->fileInode) {
    return;
  }
  impl->opened = false;
  impl->allWidgetsKept = false;
  impl->cache.forget();
  impl->closeHandle();
  open();
}

bool SqlLite3::reopen() {
  if (impl->opened) return true;
  // At most once a second: a lookup on every resource load would otherwise
  // try (and report) the failed opening again each time.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  if (impl->lastOpenAttempt.tv_sec != 0 &&
      now.tv_sec - impl->lastOpenAttempt.tv_sec < 1) {
    return false;
  }
  impl->closeHandle();
  open();
  return impl->opened;
}

void SqlLite3::open() {
  clock_gettime(CLOCK_MONOTONIC_COARSE, &impl->lastOpenAttempt);
  impl->databasePath = databasePath();
  // A registry, or a journal beside it, that another user could have
  // written would answer with their rows; it is not opened at all.
  std::string untrusted;
  if (!TrustedPath::fileAndFolder(impl->databasePath,
                                  {"-journal", "-wal", "-shm"}, &untrusted)) {
    engineOut() << "Refusing the widget registry: " << untrusted << std::endl;
    impl->opened = false;
    return;
  }
  // One thread uses a connection at a time, so SQLite's per-call locking of
  // the handle is left out (it costs more than reading a cell).
  impl->resultCode = sqlite3_open_v2(
      impl->databasePath.c_str(), &impl->db,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
      nullptr);
  if (impl->resultCode != SQLITE_OK) {
    enginePrintf("[%s:%s] Can't open database: ", kLevel, kModule);
    enginePrintf("[%s:%s] sqlite3 error message : %s\n", kLevel, kModule,
           sqlite3_errmsg(impl->db));
    enginePrintf("[%s:%s] HAVE YOU READ AND WRITE PERMISSION FOR OPEN OR CREATE "
           "THIS FILE : %s\n",
           kLevel, kModule, impl->databasePath.c_str());
    impl->closeHandle();
    impl->opened = false;
    return;
  }
  sqlite3_busy_timeout(impl->db, busyTimeoutMs());
  struct stat status;
  if (stat(impl->databasePath.c_str(), &status) == 0) {
    impl->fileDevice = status.st_dev;
    impl->fileInode = status.st_ino;
  }
  impl->identityCheckedAt = impl->lastOpenAttempt.tv_sec;
  if (impl->verbose) engineOut() << "Database open. Good news ;)" << std::endl;
  // A registry that this engine has opened before has its tables and its
  // indexes: one statement proves both.
  if (impl->probe(statements::kProbeAllTablesAndIndexes)) {
    impl->resultCode = SQLITE_OK;
    impl->opened = true;
    return;
  }
  if (checkStructure()) {
    impl->opened = true;
    ensureIndexes();
  } else {
    enginePrintf("[%s:%s] Error while checking database structure", kLevel, kModule);
    impl->opened = false;
  }
}

SqlLite3::~SqlLite3() {
  // A job left open keeps what it wrote, as statements that each committed
  // on their own would have.
  if (impl->jobOpen) endJob();
  impl->closeHandle();
}

std::string SqlLite3::databasePath() {
  const char* dir = getenv("YRA_DATA_PATH");
  std::string path = std::string(dir ? dir : WIDGETENGINE_DATABASE_DIR) + "widget.db";
  const std::string& start = startDirectory();
  if (path[0] != '/') path.insert(0, start);
  return path;
}

namespace {
// Taken when the library is loaded, before any removal can have moved the
// working directory.
const std::string& gStartDirectory = SqlLite3::startDirectory();
}  // namespace

const std::string& SqlLite3::startDirectory() {
  // Taken once: removing a failed installation's files moves the process's
  // working directory, and a registry named relative to wherever the process
  // happens to be afterwards would be another file, or none.
  static const std::string directory = [] {
    char buffer[PATH_MAX];
    if (!getcwd(buffer, sizeof buffer)) return std::string();
    std::string path(buffer);
    if (path.back() != '/') path.push_back('/');
    return path;
  }();
  return directory;
}

bool SqlLite3::isOpen() { return impl->opened; }

int SqlLite3::query(std::string sql) {
  impl->columnNames.clear();
  impl->values.clear();
  if (!impl->db) {
    impl->resultCode = SQLITE_MISUSE;
    return impl->resultCode;
  }
  char** table = nullptr;
  int rows = 0;
  int columns = 0;
  impl->resultCode = sqlite3_get_table(impl->db, sql.c_str(), &table, &rows,
                                       &columns, &impl->errorMessage);
  impl->rowCount = rows;
  impl->columnCount = columns;
  if (impl->resultCode == SQLITE_OK && table) {
    for (int k = 0; k < columns; ++k) {
      impl->columnNames.push_back(table[k] ? table[k] : "");
    }
    size_t cells = static_cast<size_t>(rows) * static_cast<size_t>(columns);
    impl->values.reserve(cells);
    for (size_t i = 0; i < cells; ++i) {
      const char* cell = table[columns + i];
      impl->values.push_back(cell ? cell : "");
    }
  }
  sqlite3_free_table(table);
  sqlite3_free(impl->errorMessage);
  impl->errorMessage = nullptr;
  return impl->resultCode;
}

const std::vector<std::string>& SqlLite3::getColumnNames() const {
  return impl->columnNames;
}

const std::vector<std::string>& SqlLite3::getValues() const {
  return impl->values;
}

bool SqlLite3::checkStructure() {
  if (!impl->db) return false;
  if (impl->probe(statements::kProbeAllTables)) {
    impl->resultCode = SQLITE_OK;
    return true;
  }
  bool ok = checkTable(statements::kWidgetsTable, statements::kCreateWidgets) &&
            checkTable(statements::kWidgetFilesTable,
                       statements::kCreateWidgetFiles) &&
            checkTable(statements::kLocalizedItemTable,
                       statements::kCreateLocalizedItem);
  if (!ok) impl->closeHandle();
  return ok;
}

bool SqlLite3::checkTable(const std::string& table,
                          const std::string& createSql) {
  if (!impl->db) return false;
  std::string probe =
      std::string(statements::kProbePrefix) + table + statements::kProbeSuffix;
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(impl->db, probe.c_str(), -1, &stmt, nullptr);
  if (rc == SQLITE_OK) {
    rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW || rc == SQLITE_DONE) rc = SQLITE_OK;
  }
  sqlite3_finalize(stmt);
  impl->resultCode = rc;
  if (rc == SQLITE_OK) return true;

  // Whatever made the probe fail, creating the table is tried; it cannot
  // harm a table that is there.
  impl->resultCode = sqlite3_exec(impl->db, createSql.c_str(), nullptr,
                                  nullptr, &impl->errorMessage);
  if (impl->resultCode == SQLITE_OK) return true;
  // Another connection may have created it in the meantime (two engines
  // opening a new registry at once): then it is there, as wanted.
  if (impl->probe(probe.c_str())) {
    sqlite3_free(impl->errorMessage);
    impl->errorMessage = nullptr;
    impl->resultCode = SQLITE_OK;
    return true;
  }
  enginePrintf("[%s:%s] Unable to create table %s :  %s (%d)\n", kLevel, kModule,
         table.c_str(),
         impl->errorMessage ? impl->errorMessage : sqlite3_errmsg(impl->db),
         impl->resultCode);
  sqlite3_free(impl->errorMessage);
  impl->errorMessage = nullptr;
  return false;
}

void SqlLite3::ensureIndexes() {
  static const char* const kChecks[][2] = {
      {statements::kHasFilesIndex, statements::kCreateFilesIndex},
      {statements::kHasItemsIndex, statements::kCreateItemsIndex},
  };
  for (const auto& index : kChecks) {
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(impl->db, index[0], -1, &stmt, nullptr);
    sqlite3_finalize(stmt);
    // A read-only or locked file keeps working without the index.
    if (rc != SQLITE_OK) impl->exec(index[1]);
  }
}

int SqlLite3::insertWidget(WidgetsData* widget) {
  bool own = impl->db && sqlite3_get_autocommit(impl->db) &&
             impl->exec(statements::kBegin) == SQLITE_OK;
  return insertWidgetRows(widget, own);
}

int SqlLite3::insertWidgetRows(WidgetsData* widget, bool ownTransaction) {
  sqlite3_stmt* insert =
      widget ? impl->statement(kInsertWidgetStatement) : nullptr;
  int rc = SQLITE_ERROR;
  if (insert) {
    ResetOnExit reset(insert);
    const std::string* texts[] = {
        &widget->getSourceURL(),  &widget->getName(),
        &widget->getLaunchURL(),  &widget->getStoragePath(),
        &widget->getVersion(),    &widget->getWidgetName(),
        &widget->getWidgetShorName(), &widget->getViewMode(),
        &widget->getIcon(),       &widget->getAuthor(),
        &widget->getAuthorEmail(), &widget->getAuthorHref()};
    bool ok = true;
    for (const std::string* text : texts) ok = ok && quotable(*text, '\'');
    if (ok) {
      bindText(insert, 1, widget->getSourceURL());
      bindText(insert, 2, widget->getName());
      bindText(insert, 3, widget->getLaunchURL());
      bindText(insert, 4, widget->getStoragePath());
      sqlite3_bind_int(insert, 5, widget->getWidth());
      sqlite3_bind_int(insert, 6, widget->getHeight());
      for (int i = 4; i < 12; ++i) bindText(insert, i + 3, *texts[i]);
      rc = sqlite3_step(insert);
      if (rc == SQLITE_DONE) rc = SQLITE_OK;
    }
  }
  impl->resultCode = rc;
  if (rc != SQLITE_OK) {
    if (ownTransaction && !sqlite3_get_autocommit(impl->db)) {
      impl->exec(statements::kRollback);
    }
    engineOut() << "Cannot insert data to database :(" << std::endl;
    return -1;
  }

  sqlite3_int64 id = sqlite3_last_insert_rowid(impl->db);
  std::vector<std::string> files = widget->getFiles();
  sqlite3_stmt* insertFile = impl->statement(kInsertWidgetFileStatement);
  for (const std::string& path : files) {
    if (!insertFile || !quotable(path, '"')) continue;
    ResetOnExit reset(insertFile);
    sqlite3_bind_int64(insertFile, 1, id);
    bindText(insertFile, 2, path);
    int fileRc = sqlite3_step(insertFile);
    if (fileRc != SQLITE_DONE && ownTransaction &&
        sqlite3_get_autocommit(impl->db)) {
      // SQLite gave up the whole transaction (I/O error, full disk): what
      // it held is gone, so the rows are written again one by one, where a
      // failing row only loses itself.
      return insertWidgetRows(widget, false);
    }
  }
  if (ownTransaction && !impl->commit()) {
    engineOut() << "Cannot insert data to database :(" << std::endl;
    return -1;
  }

  if (id > INT_MAX || id < INT_MIN) {
    enginePrintf("[%s:%s] Error convering widgetId to int : %lld\n", kLevel, kModule,
           static_cast<long long>(id));
    return 0;
  }
  return static_cast<int>(id);
}

int SqlLite3::insertLocalizedItems(int widgetId, const std::string& item,
                                   const std::map<std::string, std::string>& texts) {
  if (!impl->db || texts.empty() || !quotable(item, '\'')) return 0;
  sqlite3_stmt* insert = impl->statement(kInsertLocalizedItemStatement);
  if (!insert) return 0;
  // Returns false when SQLite gave up the transaction the rows were in.
  auto writeAll = [&](bool inTransaction) {
    for (const auto& text : texts) {
      if (!quotable(text.first, '\'') || !quotable(text.second, '\'')) {
        continue;
      }
      ResetOnExit reset(insert);
      sqlite3_bind_int(insert, 1, widgetId);
      bindText(insert, 2, item);
      bindText(insert, 3, text.first);
      bindText(insert, 4, text.second);
      if (sqlite3_step(insert) != SQLITE_DONE && inTransaction &&
          sqlite3_get_autocommit(impl->db)) {
        return false;
      }
    }
    return true;
  };
  bool own = sqlite3_get_autocommit(impl->db) &&
             impl->exec(statements::kBegin) == SQLITE_OK;
  if (!writeAll(own)) {
    // What the transaction held is gone; the rows are written one by one,
    // where a failing row only loses itself.
    writeAll(false);
  } else if (own) {
    impl->commit();
  }
  return 0;
}

int SqlLite3::deleteWidgetByName(const std::string& name) {
  if (!impl->db) return SQLITE_MISUSE;
  if (!quotable(name, '\'')) return impl->resultCode = SQLITE_ERROR;
  sqlite3_stmt* remove = impl->statement(kDeleteWidgetByNameStatement);
  if (!remove) return impl->resultCode = sqlite3_errcode(impl->db);
  ResetOnExit reset(remove);
  bindText(remove, 1, name);
  int rc = sqlite3_step(remove);
  impl->resultCode = rc == SQLITE_DONE ? SQLITE_OK : rc;
  return impl->resultCode;
}

void SqlLite3::beginJob() {
  if (!impl->db || impl->jobOpen || !sqlite3_get_autocommit(impl->db)) return;
  impl->jobOpen = impl->exec(statements::kBegin) == SQLITE_OK;
}

bool SqlLite3::beginWriteJob() {
  if (!impl->db || impl->jobOpen || !sqlite3_get_autocommit(impl->db)) {
    return false;
  }
  // The write lock is taken at once: a deferred transaction that read first
  // and then met another writer could only fail, never wait.
  impl->resultCode = impl->exec(statements::kBeginImmediate);
  impl->jobOpen = impl->resultCode == SQLITE_OK;
  return impl->jobOpen;
}

bool SqlLite3::endJob() {
  if (!impl->jobOpen) return false;
  impl->jobOpen = false;
  // SQLite gives up a transaction by itself on some errors (a full disk, an
  // I/O error); what it held was then never written.
  if (sqlite3_get_autocommit(impl->db)) {
    impl->resultCode = SQLITE_ABORT;
    return false;
  }
  const bool committed = impl->commit();
  if (!committed) impl->resultCode = sqlite3_extended_errcode(impl->db);
  return committed;
}

void SqlLite3::rollbackJob() {
  if (!impl->jobOpen) return;
  impl->jobOpen = false;
  if (!sqlite3_get_autocommit(impl->db)) impl->exec(statements::kRollback);
}

bool SqlLite3::forgetRowsOfRemovedWidgets() {
  if (!impl->db) return false;
  for (const char* sql : {statements::kDeleteFilesOfRemovedWidgets,
                          statements::kDeleteItemsOfRemovedWidgets}) {
    impl->resultCode = impl->exec(sql);
    if (impl->resultCode != SQLITE_OK) return false;
  }
  return true;
}

std::string SqlLite3::lastError() const {
  if (!impl->db) return "the registry is not open";
  return std::string(sqlite3_errmsg(impl->db)) + " (" +
         std::to_string(sqlite3_extended_errcode(impl->db)) + ")";
}

namespace {

// Records of the rows of a statement that selects whole Widgets rows. A
// statement with fewer columns yields no record, but still runs to its end
// (it may write); a failing one yields none at all. complete, when given,
// tells whether the statement ran to its end.
std::vector<WidgetsData*> widgetRecords(sqlite3_stmt* stmt,
                                        bool* complete = nullptr) {
  std::vector<WidgetsData*> records;
  if (complete) *complete = false;
  if (!stmt) return records;
  int rc;
  if (sqlite3_column_count(stmt) < kWidgetColumns) {
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    }
    if (complete) *complete = rc == SQLITE_DONE;
    return records;
  }
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    WidgetsData* w = new WidgetsData();
    w->setId(cellInt(stmt, 0));
    w->setSourceURL(cellText(stmt, 1));
    w->setName(cellText(stmt, 2));
    w->setLaunchURL(cellText(stmt, 3));
    w->setStoragePath(cellText(stmt, 4));
    w->setWidth(cellInt(stmt, 5));
    w->setHeight(cellInt(stmt, 6));
    w->setVersion(cellText(stmt, 7));
    w->setWidgetName(cellText(stmt, 8));
    w->setWidgetShorName(cellText(stmt, 9));
    w->setViewMode(cellText(stmt, 10));
    w->setIcon(cellText(stmt, 11));
    w->setAuthor(cellText(stmt, 12));
    w->setAuthorEmail(cellText(stmt, 13));
    w->setAuthorHref(cellText(stmt, 14));
    records.push_back(w);
  }
  if (rc != SQLITE_DONE) {
    for (WidgetsData* w : records) delete w;
    records.clear();
  } else if (complete) {
    *complete = true;
  }
  return records;
}

}  // namespace

std::vector<WidgetsData*> SqlLite3::readWidgets(int statement,
                                                const std::string* key,
                                                bool* complete) {
  if (complete) *complete = false;
  if (!impl->db) return {};
  sqlite3_stmt* stmt = impl->statement(static_cast<Statement>(statement));
  if (!stmt) return {};
  ResetOnExit reset(stmt);
  if (key) bindText(stmt, 1, *key);
  return widgetRecords(stmt, complete);
}

std::vector<WidgetsData*> SqlLite3::selectWidgets(std::string sql) {
  if (!impl->db) return {};
  if (sql == statements::kSelectAllWidgets) return selectAllWidgets();
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(impl->db, sql.c_str(), -1, &stmt, &tail) !=
      SQLITE_OK) {
    sqlite3_finalize(stmt);
    return {};
  }
  bool more = false;
  for (const char* p = tail; p && *p; ++p) more = more || !isspace(*p);
  std::vector<WidgetsData*> records;
  if (!more) {
    records = widgetRecords(stmt);
    sqlite3_finalize(stmt);
    return records;
  }
  sqlite3_finalize(stmt);
  // A text of several statements: their rows, read as whole Widgets rows.
  if (query(sql) != SQLITE_OK || impl->columnNames.size() <
                                     static_cast<size_t>(kWidgetColumns)) {
    return records;
  }
  const std::vector<std::string>& v = impl->values;
  size_t step = impl->columnNames.size();
  for (size_t i = 0; i + step <= v.size(); i += step) {
    records.push_back(new WidgetsData(
        atoi(v[i].c_str()), v[i + 1], v[i + 2], v[i + 3], v[i + 4],
        atoi(v[i + 5].c_str()), atoi(v[i + 6].c_str()), v[i + 7], v[i + 8],
        v[i + 9], v[i + 10], v[i + 11], v[i + 12], v[i + 13], v[i + 14]));
  }
  return records;
}

std::vector<WidgetsData*> SqlLite3::selectAllWidgets(bool* ok) {
  if (ok) *ok = false;
  if (!impl->db) return {};
  uint32_t now = 0;
  if (!impl->cache.stamp(impl->db, now)) {
    impl->allWidgetsKept = false;
    return readWidgets(kSelectAllWidgetsStatement, nullptr, ok);
  }
  std::vector<WidgetsData*> records;
  if (impl->allWidgetsKept && now == impl->allWidgetsStamp) {
    // The copies are made before the returned vector is allocated: a block
    // that large makes malloc first merge every small block freed so far
    // (typically the records of the previous listing), after which the
    // copies could no longer take those blocks back as they are.
    std::vector<WidgetsData*>& copies = impl->copies;
    copies.clear();
    copies.reserve(impl->allWidgets.size());
    for (const WidgetsData& row : impl->allWidgets) {
      copies.push_back(new WidgetsData(row));
    }
    records.assign(copies.begin(), copies.end());
    copies.clear();
    if (ok) *ok = true;
    return records;
  }
  // Read under one read lock, taken by the select and held to the commit, so
  // that the counter read before the commit is the one of these rows.
  impl->allWidgetsKept = false;
  if (impl->exec(statements::kBegin) != SQLITE_OK) {
    return readWidgets(kSelectAllWidgetsStatement, nullptr, ok);
  }
  bool read = false;
  records = readWidgets(kSelectAllWidgetsStatement, nullptr, &read);
  uint32_t stamp = 0;
  const bool stamped = impl->cache.stamp(impl->db, stamp, true);
  impl->exec(statements::kCommit);
  if (read && stamped && sqlite3_get_autocommit(impl->db)) {
    impl->allWidgets.clear();
    impl->allWidgets.reserve(records.size());
    for (const WidgetsData* row : records) impl->allWidgets.push_back(*row);
    impl->allWidgetsStamp = stamp;
    impl->allWidgetsKept = true;
  }
  if (ok) *ok = read;
  return records;
}

std::vector<WidgetsData*> SqlLite3::selectWidgetsByName(const std::string& name) {
  if (!quotable(name, '\'')) return {};
  return readWidgets(kSelectWidgetsByNameStatement, &name);
}

bool SqlLite3::isStoragePathTaken(const std::string& storagePath, bool* ok) {
  if (ok) *ok = false;
  if (!impl->db) return false;
  sqlite3_stmt* stmt = impl->statement(kStoragePathTakenStatement);
  if (!stmt) return false;
  ResetOnExit reset(stmt);
  bindText(stmt, 1, storagePath);
  const int rc = sqlite3_step(stmt);
  if (ok) *ok = rc == SQLITE_ROW || rc == SQLITE_DONE;
  return rc == SQLITE_ROW;
}

std::vector<WidgetsData*> SqlLite3::selectWidgetsBySourceURL(
    const std::string& url, bool* ok) {
  // An address holding the quote fails its statement; as no such address can
  // ever be registered (its row would fail the same way), "none" is true.
  if (ok) *ok = !quotable(url, '\'');
  if (!quotable(url, '\'')) return {};
  return readWidgets(kSelectWidgetsBySourceURLStatement, &url, ok);
}

int SqlLite3::getNameByLaunchURL(const std::string& launchURL,
                                 std::string& name) {
  return getNameByLaunchURL(launchURL.data(), launchURL.size(), name);
}

int SqlLite3::getNameByLaunchURL(const char* launchURL, size_t length,
                                 std::string& name) {
  followReplacedFile();
  if (!impl->db || !quotable(launchURL, length, '"')) return 0;
  if (impl->cache.fresh(impl->db)) {
    return impl->cache.nameByLaunchURL(launchURL, length, name) ? 1 : 0;
  }
  sqlite3_stmt* stmt = impl->statement(kNameByLaunchURLStatement);
  if (!stmt) return 0;
  ResetOnExit reset(stmt);
  sqlite3_bind_text(stmt, 1, launchURL, static_cast<int>(length),
                    SQLITE_STATIC);
  if (sqlite3_step(stmt) != SQLITE_ROW) return 0;
  name = cellText(stmt, 0);
  return 1;
}

int SqlLite3::findLocalizedResource(std::string& url,
                                    std::vector<std::string> locales) {
  followReplacedFile();
  // The address loses its "file://" and its query part before the lookup.
  url.erase(0, 7);
  std::string& queryPart = impl->queryPart;
  queryPart.clear();
  size_t question = url.find('?');
  if (question != std::string::npos) {
    queryPart.assign(url, question, std::string::npos);
    url.resize(question);
  }
  if (!impl->db || !quotable(url, '\'')) return 0;

  int64_t widgetId = 0;
  const char* dir = nullptr;
  size_t dirLength = 0;
  bool cached = impl->cache.fresh(impl->db);
  if (cached) {
    if (!impl->cache.fileOwner(url, widgetId, dir, dirLength)) return 0;
  } else {
    sqlite3_stmt* owner = impl->statement(kFileOwnerStatement);
    if (!owner) return 0;
    ResetOnExit reset(owner);
    bindText(owner, 1, url);
    int rc;
    bool found = false;
    while ((rc = sqlite3_step(owner)) == SQLITE_ROW) {
      if (!found) widgetId = sqlite3_column_int64(owner, 0);
      impl->directory = cellText(owner, 1);
      found = true;
    }
    if (rc != SQLITE_DONE || !found) return 0;
    dir = impl->directory.data();
    dirLength = impl->directory.size();
  }

  // What is left is the file's path inside the widget; a file inside a
  // locale folder already is not redirected.
  url.erase(0, dirLength);
  if (url.compare(0, 7, "locales") == 0) return 0;

  std::string& localPath = impl->localPath;
  for (const std::string& locale : locales) {
    if (!quotable(locale, '\'')) continue;
    localPath.assign("locales/");
    localPath.append(locale);
    localPath.push_back('/');
    localPath.append(url);
    bool hit;
    if (cached) {
      hit = impl->cache.hasLocalizedFile(widgetId, localPath);
    } else {
      sqlite3_stmt* local = impl->statement(kLocalizedFileStatement);
      if (!local) continue;
      ResetOnExit reset(local);
      sqlite3_bind_int64(local, 1, widgetId);
      bindText(local, 2, localPath);
      hit = sqlite3_step(local) == SQLITE_ROW;
    }
    // A copy whose address the browser would resolve outside the widget
    // (escaped dots in its path or in the locale) is never answered.
    if (hit && UrlPath::staysInside(localPath)) {
      url.assign("file://");
      url.append(dir, dirLength);
      url.push_back('/');
      url.append(localPath);
      url.append(queryPart);
      return 1;
    }
  }
  return 0;
}

int SqlLite3::getLocalizedItem(int widgetId, const std::string& item,
                               const std::vector<std::string>& locales,
                               std::string& value) {
  if (!impl->db || !quotable(item, '\'')) return 0;
  sqlite3_stmt* stmt = impl->statement(kLocalizedItemStatement);
  if (!stmt) return 0;
  for (const std::string& locale : locales) {
    if (!quotable(locale, '\'')) continue;
    ResetOnExit reset(stmt);
    sqlite3_bind_int(stmt, 1, widgetId);
    bindText(stmt, 2, item);
    bindText(stmt, 3, locale);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      value = cellText(stmt, 0);
      return 1;
    }
  }
  return 0;
}

void SqlLite3::loadLocalizedItems(WidgetsData* widget,
                                  std::vector<std::string> locales) {
  if (!widget || !impl->db) return;
  locales.push_back(localizeditems::kDefaultLanguage);
  sqlite3_stmt* stmt = impl->statement(kLocalizedItemsOfWidgetStatement);
  if (!stmt) return;

  // One pass over the widget's rows resolves all five items: for each, the
  // earliest locale of the list that has it, and of its rows the last one.
  struct Best {
    size_t rank = SIZE_MAX;
    sqlite3_int64 row = 0;
    std::string text;
  } best[localizeditems::kCount];
  {
    ResetOnExit reset(stmt);
    sqlite3_bind_int(stmt, 1, widget->getId());
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      const unsigned char* item = sqlite3_column_text(stmt, 0);
      int itemLength = sqlite3_column_bytes(stmt, 0);
      int k = 0;
      while (k < localizeditems::kCount &&
             !(item && sameText(item, itemLength, localizeditems::kAll[k],
                                strlen(localizeditems::kAll[k])))) {
        ++k;
      }
      if (k == localizeditems::kCount) continue;
      const unsigned char* lang = sqlite3_column_text(stmt, 1);
      int langLength = sqlite3_column_bytes(stmt, 1);
      if (!lang) continue;
      size_t rank = 0;
      while (rank < locales.size() &&
             !(sameText(lang, langLength, locales[rank].data(),
                        locales[rank].size()) &&
               quotable(locales[rank], '\''))) {
        ++rank;
      }
      if (rank == locales.size()) continue;
      sqlite3_int64 row = sqlite3_column_int64(stmt, 3);
      if (rank < best[k].rank || (rank == best[k].rank && row > best[k].row)) {
        best[k].rank = rank;
        best[k].row = row;
        best[k].text = cellText(stmt, 2);
      }
    }
    if (rc != SQLITE_DONE) return;
  }
  if (best[0].rank != SIZE_MAX) widget->setWidgetName(best[0].text);
  if (best[1].rank != SIZE_MAX) widget->setWidgetShorName(best[1].text);
  if (best[2].rank != SIZE_MAX) widget->setDescription(best[2].text);
  if (best[3].rank != SIZE_MAX) widget->setLicense(best[3].text);
  if (best[4].rank != SIZE_MAX) widget->setLicenseHref(best[4].text);
}
