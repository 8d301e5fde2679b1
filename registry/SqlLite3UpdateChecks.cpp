// SPDX-License-Identifier: Apache-2.0
// The registry's memory of update checks: per widget and description
// address, the last full answer, so that the next check can ask "changed
// since?" and a 304 costs no body. Only a registry that saw a check has the
// table; on any other a read finds nothing.
#include <sqlite3.h>

#include "registry/SqlLite3.h"
#include "registry/SqlLite3Impl.h"
#include "registry/Statements.h"

using namespace sqlite3impl;

namespace {

std::string cellBytes(sqlite3_stmt* stmt, int column) {
  const void* bytes = sqlite3_column_blob(stmt, column);
  const int size = sqlite3_column_bytes(stmt, column);
  if (bytes == nullptr || size <= 0) return std::string();
  return std::string(static_cast<const char*>(bytes), static_cast<size_t>(size));
}

}  // namespace

bool SqlLite3::readUpdateAnswer(int widgetId, const std::string& href,
                                UpdateAnswer* answer) {
  if (!impl->db) return false;
  // One read transaction, so that the table cannot appear or go between
  // the question and the answer.
  const bool own = sqlite3_get_autocommit(impl->db) &&
                   impl->exec(statements::kBegin) == SQLITE_OK;
  bool found = false;
  {
    OneStatement probe(impl->db, statements::kHasUpdateChecksTable);
    if (probe.get() && sqlite3_step(probe.get()) == SQLITE_ROW) {
      OneStatement read(impl->db, statements::kUpdateCheckOfWidget);
      if (read.get()) {
        sqlite3_bind_int(read.get(), 1, widgetId);
        bindText(read.get(), 2, href);
        if (sqlite3_step(read.get()) == SQLITE_ROW) {
          answer->etag = cellText(read.get(), 0);
          answer->lastModified = cellText(read.get(), 1);
          answer->document = cellBytes(read.get(), 2);
          found = true;
        }
      }
    }
  }
  if (own) impl->exec(statements::kRollback);
  return found;
}

bool SqlLite3::keepUpdateAnswer(int widgetId, const std::string& href,
                                const UpdateAnswer& answer) {
  PublishOnExit<Impl> publish(impl.get());
  if (!impl->db || !sqlite3_get_autocommit(impl->db)) return false;
  if (impl->exec(statements::kBeginImmediate) != SQLITE_OK) return false;
  bool ok = impl->exec(statements::kCreateUpdateChecks) == SQLITE_OK &&
            impl->exec(statements::kDeleteUpdateChecksOfRemovedWidgets) ==
                SQLITE_OK;
  if (ok) {
    OneStatement insert(impl->db, statements::kInsertUpdateCheck);
    sqlite3_stmt* stmt = insert.get();
    ok = stmt != nullptr;
    if (ok) {
      sqlite3_bind_int(stmt, 1, widgetId);
      bindText(stmt, 2, href);
      bindText(stmt, 3, answer.etag);
      bindText(stmt, 4, answer.lastModified);
      sqlite3_bind_blob(stmt, 5, answer.document.data(),
                        static_cast<int>(answer.document.size()), SQLITE_STATIC);
      ok = sqlite3_step(stmt) == SQLITE_DONE;
    }
  }
  if (!ok) {
    impl->exec(statements::kRollback);
    return false;
  }
  return impl->commit();
}
