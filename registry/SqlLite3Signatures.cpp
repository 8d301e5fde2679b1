// SPDX-License-Identifier: Apache-2.0
// The registry's record of signed widgets: what an installation under a
// signature policy learnt, written in its job beside the widget's rows and
// read back by name. Only a registry that saw such an installation has the
// table; on any other these calls find nothing and write nothing.
#include <sqlite3.h>

#include "registry/SqlLite3.h"
#include "registry/SqlLite3Impl.h"
#include "registry/Statements.h"

using namespace sqlite3impl;

bool SqlLite3::hasSignaturesTable() {
  OneStatement probe(impl->db, statements::kHasSignaturesTable);
  return probe.get() && sqlite3_step(probe.get()) == SQLITE_ROW;
}

int SqlLite3::runWithName(const char* sql, const std::string& name) {
  OneStatement stmt(impl->db, sql);
  if (!stmt.get()) return sqlite3_errcode(impl->db);
  bindText(stmt.get(), 1, name);
  const int rc = sqlite3_step(stmt.get());
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

bool SqlLite3::writeSignatures(int widgetId, const SignatureRow& row) {
  if (!impl->db || !impl->jobOpen) return false;
  impl->resultCode = impl->exec(statements::kCreateWidgetSignatures);
  if (impl->resultCode != SQLITE_OK) return false;
  OneStatement insert(impl->db, statements::kInsertWidgetSignatures);
  if (!insert.get()) {
    impl->resultCode = sqlite3_errcode(impl->db);
    return false;
  }
  sqlite3_stmt* stmt = insert.get();
  sqlite3_bind_int(stmt, 1, widgetId);
  bindText(stmt, 2, row.policy);
  sqlite3_bind_int(stmt, 3, row.isSigned ? 1 : 0);
  sqlite3_bind_int(stmt, 4, row.valid ? 1 : 0);
  bindText(stmt, 5, row.authorSubject);
  bindText(stmt, 6, row.authorFingerprint);
  bindText(stmt, 7, row.anchor);
  bindText(stmt, 8, row.record);
  const int rc = sqlite3_step(stmt);
  impl->resultCode = rc == SQLITE_DONE ? SQLITE_OK : rc;
  return rc == SQLITE_DONE;
}

bool SqlLite3::forgetSignatures(const std::string& name) {
  if (!impl->db || !impl->jobOpen) return false;
  if (!hasSignaturesTable()) return true;
  impl->resultCode = runWithName(statements::kDeleteSignaturesByName, name);
  return impl->resultCode == SQLITE_OK;
}

int SqlLite3::readSignatures(const std::string& name, std::string* record) {
  if (!impl->db) return -1;
  // One read transaction, so that the table cannot appear or go between
  // the question and the answer.
  const bool own = sqlite3_get_autocommit(impl->db) &&
                   impl->exec(statements::kBegin) == SQLITE_OK;
  const bool withTable = hasSignaturesTable();
  OneStatement read(impl->db, withTable ? statements::kSignaturesOfWidget
                                        : statements::kWidgetIdByName);
  int found = -1;
  if (read.get()) {
    bindText(read.get(), 1, name);
    int rc = sqlite3_step(read.get());
    if (rc == SQLITE_DONE) {
      found = 0;
    } else if (rc == SQLITE_ROW) {
      found = 1;
      if (withTable && sqlite3_column_type(read.get(), 1) != SQLITE_NULL) {
        *record = cellText(read.get(), 1);
        found = 2;
      }
    }
  }
  if (own) impl->exec(statements::kRollback);
  return found;
}
