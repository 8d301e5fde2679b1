// SPDX-License-Identifier: Apache-2.0
// Opening and closing the registry, its schema and the generic statement
// runner; the writes are in SqlLite3Writes.cpp, the reads in
// SqlLite3Lookups.cpp.
#include "registry/SqlLite3.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "base/EngineOutput.h"
#include "base/Settings.h"
#include "base/TrustedPath.h"
#include "registry/SqlLite3Impl.h"

using namespace sqlite3impl;

SqlLite3::SqlLite3() : impl(new Impl) {
  impl->logPrefix = "XXXXX SQLITE3 XXXX ==> ";
  open();
}

time_t SqlLite3::followReplacedFile() {
  // A connection keeps reading the file it opened, even once another file
  // has taken its name (a registry restored from a copy, or removed and
  // made anew by another process): at most once a second, the path is
  // looked at again, and a connection to a file that no longer has it
  // opens the one that does.
  const time_t now = LookupCache::coarseSecond();
  if (now == impl->identityCheckedAt) return now;
  impl->identityCheckedAt = now;
  struct stat status;
  if (!impl->opened || stat(impl->databasePath.c_str(), &status) != 0) return now;
  if (status.st_dev == impl->fileDevice && status.st_ino == impl->fileInode) {
    return now;
  }
  impl->opened = false;
  impl->allWidgetsKept = false;
  impl->cache.forget();
  impl->closeHandle();
  open();
  return now;
}

int SqlLite3::reclaimCounters() { return ChangeCounter::reclaim(); }

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
    enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] Can't open database: ", kLevel, kModule);
    enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] sqlite3 error message : %s\n", kLevel, kModule,
           sqlite3_errmsg(impl->db));
    enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] HAVE YOU READ AND WRITE PERMISSION FOR OPEN OR CREATE "
           "THIS FILE : %s\n",
           kLevel, kModule, impl->databasePath.c_str());
    impl->closeHandle();
    impl->opened = false;
    return;
  }
  sqlite3_busy_timeout(impl->db, settings::busyTimeoutMs());
  sqlite3_commit_hook(impl->db, noteCommit<Impl>, impl.get());
  PublishOnExit<Impl> publish(impl.get());
  struct stat status;
  impl->fileDevice = 0;
  impl->fileInode = 0;
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
    enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] Error while checking database structure", kLevel, kModule);
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
  // Glued as it is, a relative directory included: such a registry is found
  // from the working directory of the moment, which removing a failed
  // installation's files moves (integrating.md warns hosts of it).
  return settings::registryDirectory() + "widget.db";
}

bool SqlLite3::isOpen() { return impl->opened; }

int SqlLite3::query(std::string sql) {
  PublishOnExit<Impl> publish(impl.get());
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
  enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] Unable to create table %s :  %s (%d)\n", kLevel, kModule,
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

std::string SqlLite3::lastError() const {
  if (!impl->db) return "the registry is not open";
  if (!impl->refusedBeforeSQLite.empty()) return impl->refusedBeforeSQLite;
  return std::string(sqlite3_errmsg(impl->db)) + " (" +
         std::to_string(sqlite3_extended_errcode(impl->db)) + ")";
}
