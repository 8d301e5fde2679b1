// SPDX-License-Identifier: Apache-2.0
// The registry's record of installations. An update in place keeps the
// widget's row, and so its token; a removal deletes the row, which retires
// the token in the same statement (a trigger), so that a later widget of the
// same name, from anywhere, gets a token of its own, and with it none of the
// first one's web data. Retired rows stay until the data is gone
// (install/WebData.cpp).
#include "registry/SqlLite3.h"

#include <sqlite3.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdio>

#include "registry/SqlLite3Impl.h"
#include "registry/Statements.h"

using namespace sqlite3impl;

namespace {

// 128 bits from the kernel's generator, as 32 lower-case hex digits; empty
// when it cannot give them.
std::string randomToken() {
  unsigned char bytes[16];
  size_t got = 0;
  while (got < sizeof bytes) {
    const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::string();
    got += static_cast<size_t>(n);
  }
  char text[sizeof bytes * 2 + 1];
  for (size_t i = 0; i < sizeof bytes; ++i)
    snprintf(text + 2 * i, 3, "%02x", bytes[i]);
  return std::string(text, sizeof bytes * 2);
}

// Runs sql with its text values bound in order; SQLITE_DONE or SQLITE_ROW
// (the first row's first cell then in *cell) on success.
int runStatement(sqlite3* db, const char* sql,
                 std::initializer_list<const std::string*> values,
                 std::string* cell = nullptr) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
  if (rc == SQLITE_OK) {
    int index = 1;
    for (const std::string* value : values) bindText(stmt, index++, *value);
    rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW && cell != nullptr) *cell = cellText(stmt, 0);
  }
  sqlite3_finalize(stmt);
  return rc;
}

bool succeeded(int rc) { return rc == SQLITE_DONE || rc == SQLITE_ROW; }

}  // namespace

std::string SqlLite3::installationToken(const std::string& name, bool create) {
  PublishOnExit<Impl> publish(impl.get());
  if (!impl->db || !quotable(name, '\'')) return std::string();
  std::string token;
  const bool known =
      runStatement(impl->db, statements::kHasInstallations, {}) == SQLITE_ROW;
  if (known && runStatement(impl->db, statements::kInstallationOfWidget,
                            {&name}, &token) == SQLITE_ROW) {
    // A row left by a widget that went some other way is not this one's.
    std::string installed;
    if (runStatement(impl->db, statements::kSelectWidgetsByName, {&name},
                     &installed) == SQLITE_ROW) {
      return token;
    }
    token.clear();
  }
  if (!create) return token;
  // The write lock first: two hosts asking at once get the same token.
  if (!beginWriteJob()) return std::string();
  bool ok = true;
  for (const char* sql : {statements::kCreateInstallations,
                          statements::kCreateInstallationsTrigger,
                          statements::kRetireOrphanInstallations})
    ok = ok && succeeded(runStatement(impl->db, sql, {}));
  if (ok && runStatement(impl->db, statements::kInstallationOfWidget, {&name},
                         &token) != SQLITE_ROW) {
    token = randomToken();
    ok = !token.empty() &&
         succeeded(runStatement(impl->db, statements::kInsertInstallation,
                                {&token, &name})) &&
         sqlite3_changes(impl->db) == 1;
  }
  if (!ok) {
    rollbackJob();
    return std::string();
  }
  return endJob() ? token : std::string();
}

std::vector<std::string> SqlLite3::retiredInstallations() {
  PublishOnExit<Impl> publish(impl.get());
  std::vector<std::string> tokens;
  if (!impl->db ||
      runStatement(impl->db, statements::kHasInstallations, {}) != SQLITE_ROW)
    return tokens;
  runStatement(impl->db, statements::kRetireOrphanInstallations, {});
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(impl->db, statements::kRetiredInstallations, -1,
                         &stmt, nullptr) == SQLITE_OK) {
    while (sqlite3_step(stmt) == SQLITE_ROW) tokens.push_back(cellText(stmt, 0));
  }
  sqlite3_finalize(stmt);
  return tokens;
}

bool SqlLite3::forgetInstallation(const std::string& token) {
  PublishOnExit<Impl> publish(impl.get());
  if (!impl->db) return false;
  return succeeded(
      runStatement(impl->db, statements::kForgetInstallation, {&token}));
}
