// SPDX-License-Identifier: Apache-2.0
#include "testing/LiteralRegistry.h"

#include <sqlite3.h>

#include <cstdlib>

LiteralRegistry::LiteralRegistry(const std::string& path, bool checkTables)
    : db_(nullptr), opened_(false) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) return;
  opened_ = true;
  if (!checkTables) return;
  for (const char* table : {"widgets", "widgetFiles", "localizedItem"}) {
    char* error = nullptr;
    const std::string sql = std::string("SELECT COUNT(*) FROM ") + table;
    opened_ = opened_ &&
              sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK;
    sqlite3_free(error);
  }
}

LiteralRegistry::~LiteralRegistry() { sqlite3_close(db_); }

int LiteralRegistry::query(const std::string& sql) {
  char** table = nullptr;
  int rows = 0, columns = 0;
  char* error = nullptr;
  const int rc =
      sqlite3_get_table(db_, sql.c_str(), &table, &rows, &columns, &error);
  columnNames_.clear();
  values_.clear();
  if (rc == SQLITE_OK) {
    for (int k = 0; k < columns; ++k) columnNames_.push_back(table[k]);
    for (int k = columns; k < (rows + 1) * columns; ++k) {
      values_.push_back(table[k] ? table[k] : "");
    }
  }
  sqlite3_free_table(table);
  sqlite3_free(error);
  return rc;
}

std::vector<WidgetsData*> LiteralRegistry::selectWidgets(const std::string& sql) {
  std::vector<WidgetsData*> result;
  query(sql);
  if (columnNames_.size() < 15) return result;
  const std::vector<std::string>& v = values_;
  for (size_t i = 0; i + 14 < v.size(); i += columnNames_.size()) {
    result.push_back(new WidgetsData(
        atoi(v[i].c_str()), v[i + 1], v[i + 2], v[i + 3], v[i + 4],
        atoi(v[i + 5].c_str()), atoi(v[i + 6].c_str()), v[i + 7], v[i + 8],
        v[i + 9], v[i + 10], v[i + 11], v[i + 12], v[i + 13], v[i + 14]));
  }
  return result;
}

int LiteralRegistry::getNameByLaunchURL(const std::string& launchURL,
                                        std::string& name) {
  query("SELECT  widgets.Name FROM widgets WHERE launchURL = \"" + launchURL +
        "\"");
  if (values_.empty()) return 0;
  name = values_[0];
  return 1;
}

int LiteralRegistry::findLocalizedResource(
    std::string& url, const std::vector<std::string>& locales) {
  url.erase(0, 7);
  std::string queryPart;
  const size_t q = url.find('?');
  if (q != std::string::npos) {
    queryPart = url.substr(q);
    url.resize(q);
  }
  query("SELECT  widgets.ID, widgets.storagePath from widgetFiles LEFT JOIN "
        "widgets ON widgetFiles.widgetID=widgets.ID where storagePath || path "
        "= '" + url + "'");
  if (values_.empty()) return 0;
  const std::string id = values_.front();
  const std::string dir = values_.back();
  url.erase(0, dir.size());
  if (url.find("locales") == 0) return 0;
  const std::string prefix =
      "SELECT path FROM widgetfiles WHERE widgetID=" + id + " AND PATH=";
  for (const std::string& locale : locales) {
    query(prefix + "'locales/" + locale + "/" + url + "'");
    if (!values_.empty()) {
      url = "file://" + dir + "/" + values_.back() + queryPart;
      return 1;
    }
  }
  return 0;
}

int LiteralRegistry::getLocalizedItem(int widgetId, const std::string& item,
                                      const std::vector<std::string>& locales,
                                      std::string& value) {
  const std::string prefix = "SELECT value FROM localizedItem WHERE widgetId=" +
                             std::to_string(widgetId) + " AND item='";
  for (const std::string& locale : locales) {
    query(prefix + item + "' AND lang='" + locale + "'");
    if (!values_.empty()) {
      value = values_.back();
      return 1;
    }
  }
  return 0;
}

void LiteralRegistry::loadLocalizedItems(WidgetsData* widget,
                                         std::vector<std::string> locales) {
  locales.push_back("default");
  std::string text;
  const int id = widget->getId();
  if (getLocalizedItem(id, "name", locales, text)) widget->setWidgetName(text);
  if (getLocalizedItem(id, "shortname", locales, text)) {
    widget->setWidgetShorName(text);
  }
  if (getLocalizedItem(id, "description", locales, text)) {
    widget->setDescription(text);
  }
  if (getLocalizedItem(id, "license", locales, text)) widget->setLicense(text);
  if (getLocalizedItem(id, "licensehref", locales, text)) {
    widget->setLicenseHref(text);
  }
}
