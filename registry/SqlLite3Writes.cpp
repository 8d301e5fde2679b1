// SPDX-License-Identifier: Apache-2.0
// The registry's writes: a widget's rows, its texts, its removal, and the
// transactions that group a job's writes.
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
#include "base/Refusal.h"
#include "registry/Statements.h"
#include "registry/SqlLite3Impl.h"

using namespace sqlite3impl;

namespace {

// Also the engine's statement of a refused installation, which widgetctl
// quotes.
const char kCannotInsert[] = "Cannot insert data to database :(";

}  // namespace

int SqlLite3::insertWidget(WidgetsData* widget) {
  PublishOnExit<Impl> publish(impl.get());
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
    engineError() << kCannotInsert << std::endl;
    refusal::state(kCannotInsert);
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
    engineError() << kCannotInsert << std::endl;
    refusal::state(kCannotInsert);
    return -1;
  }

  if (id > INT_MAX || id < INT_MIN) {
    enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] Error convering widgetId to int : %lld\n", kLevel, kModule,
           static_cast<long long>(id));
    return 0;
  }
  return static_cast<int>(id);
}

int SqlLite3::insertLocalizedItems(int widgetId, const std::string& item,
                                   const std::map<std::string, std::string>& texts) {
  PublishOnExit<Impl> publish(impl.get());
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
  PublishOnExit<Impl> publish(impl.get());
  if (!impl->db) return SQLITE_MISUSE;
  if (!quotable(name, '\'')) return impl->resultCode = SQLITE_ERROR;
  // A widget whose signatures were recorded takes its record along, in the
  // same transaction: no record may outlive its widget, nor a widget lose
  // its record while it stays.
  const bool withRecord =
      sqlite3_get_autocommit(impl->db) && hasSignaturesTable();
  if (withRecord) {
    impl->resultCode = impl->exec(statements::kBeginImmediate);
    if (impl->resultCode != SQLITE_OK) return impl->resultCode;
    impl->resultCode = runWithName(statements::kDeleteSignaturesByName, name);
    if (impl->resultCode != SQLITE_OK) {
      impl->exec(statements::kRollback);
      return impl->resultCode;
    }
  }
  sqlite3_stmt* remove = impl->statement(kDeleteWidgetByNameStatement);
  int rc = SQLITE_ERROR;
  if (!remove) {
    rc = sqlite3_errcode(impl->db);
  } else {
    ResetOnExit reset(remove);
    bindText(remove, 1, name);
    rc = sqlite3_step(remove);
    if (rc == SQLITE_DONE) rc = SQLITE_OK;
  }
  if (withRecord) {
    if (rc != SQLITE_OK) {
      impl->exec(statements::kRollback);
    } else if (!impl->commit()) {
      rc = sqlite3_extended_errcode(impl->db);
      if (rc == SQLITE_OK) rc = SQLITE_ERROR;
    }
  }
  impl->resultCode = rc;
  return impl->resultCode;
}

void SqlLite3::beginJob() {
  if (!impl->db || impl->jobOpen || !sqlite3_get_autocommit(impl->db)) return;
  impl->jobOpen = impl->exec(statements::kBegin) == SQLITE_OK;
}

bool SqlLite3::beginWriteJob() {
  // The write lock is taken at once: a deferred transaction that read first
  // and then met another writer could only fail, never wait.
  return beginLockedJob(statements::kBeginImmediate);
}

bool SqlLite3::beginExclusiveJob() {
  return beginLockedJob(statements::kBeginExclusive);
}

bool SqlLite3::beginLockedJob(const char* begin) {
  if (!impl->db || impl->jobOpen || !sqlite3_get_autocommit(impl->db)) {
    return false;
  }
  impl->resultCode = impl->exec(begin);
  impl->jobOpen = impl->resultCode == SQLITE_OK;
  return impl->jobOpen;
}

bool SqlLite3::endJob() {
  PublishOnExit<Impl> publish(impl.get());
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

void SqlLite3::announceChange() {
  if (impl->db && impl->jobOpen) impl->sharedCounter()->bump();
}

namespace {

// Runs one statement of an update with the widget's id bound first and the
// texts after it; the SQLite result code.
int runWithId(sqlite3* db, const char* sql, int widgetId,
              const std::vector<const std::string*>& texts = {},
              const std::vector<int>& numbers = {}) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
  if (rc != SQLITE_OK) return rc;
  sqlite3_bind_int(stmt, 1, widgetId);
  int index = 2;
  for (const int number : numbers) sqlite3_bind_int(stmt, index++, number);
  for (const std::string* text : texts) bindText(stmt, index++, *text);
  rc = sqlite3_step(stmt);
  sqlite3_finalize(stmt);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace

bool SqlLite3::replaceWidgetRows(int widgetId, const WidgetsData& widget) {
  impl->refusedBeforeSQLite.clear();
  if (!impl->db || !impl->jobOpen) return false;
  const std::vector<const std::string*> texts = {
      &widget.getVersion(),    &widget.getWidgetName(),
      &widget.getWidgetShorName(), &widget.getViewMode(),
      &widget.getIcon(),       &widget.getAuthor(),
      &widget.getAuthorEmail(), &widget.getAuthorHref()};
  for (const std::string* text : texts) {
    if (!quotable(*text, '\'')) {
      impl->resultCode = SQLITE_ERROR;
      impl->refusedBeforeSQLite =
          "a text of config.xml holds a quote or a NUL character: " + *text;
      return false;
    }
  }
  impl->resultCode = runWithId(impl->db, statements::kUpdateWidget, widgetId,
                               texts, {widget.getWidth(), widget.getHeight()});
  if (impl->resultCode == SQLITE_OK)
    impl->resultCode =
        runWithId(impl->db, statements::kDeleteFilesOfWidget, widgetId);
  if (impl->resultCode == SQLITE_OK)
    impl->resultCode =
        runWithId(impl->db, statements::kDeleteItemsOfWidget, widgetId);
  sqlite3_stmt* insertFile = impl->statement(kInsertWidgetFileStatement);
  // Without its file rows the widget would look empty, and a switch that
  // was cut short could not tell that these rows were committed.
  if (impl->resultCode == SQLITE_OK && !insertFile)
    impl->resultCode = sqlite3_errcode(impl->db) != SQLITE_OK ? sqlite3_errcode(impl->db)
                                                               : SQLITE_ERROR;
  for (const std::string& path : widget.getFiles()) {
    if (impl->resultCode != SQLITE_OK) break;
    // A name the installation would have left out is left out here too.
    if (!quotable(path, '"')) continue;
    ResetOnExit reset(insertFile);
    sqlite3_bind_int(insertFile, 1, widgetId);
    bindText(insertFile, 2, path);
    const int rc = sqlite3_step(insertFile);
    impl->resultCode = rc == SQLITE_DONE ? SQLITE_OK : rc;
  }
  return impl->resultCode == SQLITE_OK && !sqlite3_get_autocommit(impl->db);
}

bool SqlLite3::lastFileRow(int64_t* id) {
  if (!impl->db) return false;
  sqlite3_stmt* stmt = nullptr;
  impl->resultCode =
      sqlite3_prepare_v2(impl->db, statements::kLastFileRow, -1, &stmt, nullptr);
  bool read = false;
  if (impl->resultCode == SQLITE_OK) {
    impl->resultCode = sqlite3_step(stmt);
    read = impl->resultCode == SQLITE_ROW;
    if (read) *id = sqlite3_column_int64(stmt, 0);
  }
  sqlite3_finalize(stmt);
  return read;
}

bool SqlLite3::hasFilesWrittenAfter(int widgetId, int64_t mark, bool* ok) {
  *ok = false;
  if (!impl->db) return false;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(impl->db, statements::kFilesWrittenAfter, -1, &stmt,
                         nullptr) != SQLITE_OK) {
    return false;
  }
  sqlite3_bind_int(stmt, 1, widgetId);
  sqlite3_bind_int64(stmt, 2, mark);
  const int rc = sqlite3_step(stmt);
  sqlite3_finalize(stmt);
  *ok = rc == SQLITE_ROW || rc == SQLITE_DONE;
  return rc == SQLITE_ROW;
}

void SqlLite3::rollbackJob() {
  PublishOnExit<Impl> publish(impl.get());
  impl->refusedBeforeSQLite.clear();
  if (!impl->jobOpen) return;
  impl->jobOpen = false;
  if (!sqlite3_get_autocommit(impl->db)) impl->exec(statements::kRollback);
}

bool SqlLite3::forgetRowsOfRemovedWidgets() {
  PublishOnExit<Impl> publish(impl.get());
  if (!impl->db) return false;
  for (const char* sql : {statements::kDeleteFilesOfRemovedWidgets,
                          statements::kDeleteItemsOfRemovedWidgets}) {
    impl->resultCode = impl->exec(sql);
    if (impl->resultCode != SQLITE_OK) return false;
  }
  // A widget removed by an engine that knew nothing of signatures left its
  // record behind.
  if (hasSignaturesTable()) {
    impl->resultCode = impl->exec(statements::kDeleteSignaturesOfRemovedWidgets);
    if (impl->resultCode != SQLITE_OK) return false;
  }
  return true;
}
