// SPDX-License-Identifier: Apache-2.0
#include "testing/WidgetSandbox.h"

#include <sqlite3.h>
#include <sys/stat.h>

namespace {

std::string joined(const std::vector<std::string>& names) {
  std::string text = "{";
  for (size_t i = 0; i < names.size(); ++i)
    text += (i ? ", \"" : "\"") + names[i] + "\"";
  return text + "}";
}

}  // namespace

WidgetSandbox::WidgetSandbox()
    : root(dir.path() + "/widgets/"),
      conf(dir.path() + "/conf/"),
      packages(dir.path() + "/packages/"),
      widgetPath_("WIDGET_PATH", root),
      dataPath_("YRA_DATA_PATH", conf) {
  for (const std::string& folder : {root, root + "tmp", conf, packages})
    EXPECT_EQ(0, mkdir(folder.c_str(), 0755)) << folder;
}

std::string WidgetSandbox::writePackage(const std::string& fileName,
                                        const ZipBuilder& zip) const {
  const std::string path = packages + fileName;
  EXPECT_TRUE(zip.write(path)) << path;
  return path;
}

::testing::AssertionResult WidgetSandbox::rootHoldsOnly(
    const std::vector<std::string>& entries) const {
  const std::vector<std::string> inRoot = TempDir::listDirectory(root);
  if (inRoot != entries)
    return ::testing::AssertionFailure()
           << "the widget root holds " << joined(inRoot) << ", not "
           << joined(entries);
  const std::vector<std::string> inTmp = TempDir::listDirectory(root + "tmp");
  if (!inTmp.empty())
    return ::testing::AssertionFailure()
           << "the widget root's tmp/ holds " << joined(inTmp);
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult WidgetSandbox::nothingLeft() const {
  return rootHoldsOnly({"tmp"});
}

int WidgetSandbox::count(const std::string& sql) const {
  sqlite3* db = nullptr;
  int result = -1;
  if (sqlite3_open_v2((conf + "widget.db").c_str(), &db, SQLITE_OPEN_READONLY,
                      nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      result = sqlite3_column_int(statement, 0);
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return result;
}
