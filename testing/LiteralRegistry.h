// SPDX-License-Identifier: Apache-2.0
// LiteralRegistry is the registry done the plain way: every value pasted into
// the statement text, every statement run with sqlite3_get_table, nothing
// prepared, cached or indexed. Tests use it as the oracle the engine's own
// answers must equal; benchmarks use it as the twin the engine is measured
// against.
#ifndef WIDGETENGINE_TESTING_LITERALREGISTRY_H_
#define WIDGETENGINE_TESTING_LITERALREGISTRY_H_

#include <string>
#include <vector>

#include "registry/WidgetsData.h"

struct sqlite3;

class LiteralRegistry {
 public:
  // Opens the file at path; with checkTables, probes each table with
  // "SELECT COUNT(*)" as the plain engine does when it opens.
  explicit LiteralRegistry(const std::string& path, bool checkTables = false);
  ~LiteralRegistry();

  LiteralRegistry(const LiteralRegistry&) = delete;
  LiteralRegistry& operator=(const LiteralRegistry&) = delete;

  // Whether the file opened (and, when asked, every table answered).
  bool isOpen() const { return opened_; }
  sqlite3* handle() const { return db_; }

  // The SQLite result code; the header and the cells (NULL as "") of the
  // result are left in columnNames() and values().
  int query(const std::string& sql);
  const std::vector<std::string>& columnNames() const { return columnNames_; }
  const std::vector<std::string>& values() const { return values_; }

  std::vector<WidgetsData*> selectWidgets(const std::string& sql);
  int getNameByLaunchURL(const std::string& launchURL, std::string& name);
  int findLocalizedResource(std::string& url,
                            const std::vector<std::string>& locales);
  int getLocalizedItem(int widgetId, const std::string& item,
                       const std::vector<std::string>& locales,
                       std::string& value);
  void loadLocalizedItems(WidgetsData* widget, std::vector<std::string> locales);

 private:
  sqlite3* db_;
  bool opened_;
  std::vector<std::string> columnNames_;
  std::vector<std::string> values_;
};

#endif  // WIDGETENGINE_TESTING_LITERALREGISTRY_H_
