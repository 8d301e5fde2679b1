// SPDX-License-Identifier: Apache-2.0
#include "query/WidgetQuery.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"

namespace {

class QueryTest : public ::testing::Test {
 protected:
  QueryTest() : env_("YRA_DATA_PATH", registry_.path() + "/") {}

  // Registers a widget called name with texts by item and language.
  static int addWidget(
      const std::string& name,
      const std::map<std::string, std::map<std::string, std::string>>& texts =
          {}) {
    SqlLite3 db;
    EXPECT_TRUE(db.isOpen());
    const std::string dir = "/widgets/widget_" + name + "/";
    WidgetsData widget(0, "http://127.0.0.1/" + name + ".wgt", name,
                       "file://" + dir + "index.html", dir, 320, 240, "2.1",
                       "Column " + name, "col", "windowed", "icon.png",
                       "Author", "a@example.org", "http://example.org/");
    widget.setFiles({"index.html"});
    const int id = db.insertWidget(&widget);
    EXPECT_GT(id, 0);
    for (const auto& item : texts) {
      db.insertLocalizedItems(id, item.first, item.second);
    }
    return id;
  }

  TempDir registry_;
  ScopedEnv env_;
};

void createWidgetsTableWithoutConstraints(const std::string& file) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
  const int rc = sqlite3_exec(
      db,
      "CREATE TABLE Widgets(id INTEGER NOT NULL,sourceURL VARCHAR(255),"
      "name VARCHAR(255),launchURL VARCHAR(255),storagePath VARCHAR(255),"
      "width INTEGER,height INTEGER,version VARCHAR(255),"
      "widgetName VARCHAR(255),widgetShorName VARCHAR(255),"
      "viewMode VARCHAR(255),icon VARCHAR(255),author VARCHAR(255),"
      "authorEmail VARCHAR(255),authorHref VARCHAR(255),PRIMARY KEY (id))",
      nullptr, nullptr, nullptr);
  sqlite3_close(db);
  ASSERT_EQ(SQLITE_OK, rc);
}

}  // namespace

TEST_F(QueryTest, UnknownNameSaysSoAndYieldsNull) {
  addWidget("clock");
  CaptureStdout out;
  {
    WidgetQuery query("calendar");
    EXPECT_EQ(nullptr, query.getInfo({"en"}));
  }
  EXPECT_EQ("No widget with this name\nNothing to clean\n", out.text());
}

TEST_F(QueryTest, EmptyRegistryListsNothingAndSaysOnlyNothingToClean) {
  CaptureStdout out;
  {
    WidgetQuery query("");
    EXPECT_TRUE(query.getAll().empty());
  }
  EXPECT_EQ("Nothing to clean\n", out.text());
}

TEST_F(QueryTest, InfoResolvesTextsForTheFirstLocaleThatHasThem) {
  addWidget("clock",
            {{"name", {{"default", "Clock"}, {"fr", "Horloge"}}},
             {"shortname", {{"de", "Uhr"}}},
             {"description", {{"default", "Tells time"}, {"fr-fr", "Heure"}}},
             {"license", {{"default", "MIT"}}},
             {"licensehref", {{"en", "http://l/en"}}}});
  CaptureStdout out;
  WidgetQuery query("clock");
  WidgetsData* record = query.getInfo({"fr-fr", "fr"});
  ASSERT_NE(nullptr, record);
  EXPECT_EQ("clock", record->getName());
  EXPECT_EQ("Horloge", record->getWidgetName());
  EXPECT_EQ("col", record->getWidgetShorName());  // the column stays
  EXPECT_EQ("Heure", record->getDescription());
  EXPECT_EQ("MIT", record->getLicense());
  EXPECT_EQ("", record->getLicenseHref());
  EXPECT_EQ("2.1", record->getVersion());
  EXPECT_EQ(320, record->getWidth());
  EXPECT_EQ(240, record->getHeight());
  EXPECT_EQ("file:///widgets/widget_clock/index.html", record->getLaunchURL());
  delete record;
}

TEST_F(QueryTest, InfoWithoutLocalesFallsBackToDefaultTexts) {
  addWidget("clock", {{"name", {{"default", "Clock"}, {"fr", "Horloge"}}}});
  CaptureStdout out;
  WidgetQuery query("clock");
  WidgetsData* record = query.getInfo({});
  ASSERT_NE(nullptr, record);
  EXPECT_EQ("Clock", record->getWidgetName());
  delete record;
}

TEST_F(QueryTest, ListHoldsEveryWidgetWithoutLocalizedTexts) {
  addWidget("a", {{"description", {{"default", "A"}}}});
  addWidget("b");
  addWidget("c");
  CaptureStdout out;
  std::vector<WidgetsData*> all;
  {
    WidgetQuery query("ignored");
    all = query.getAll();
  }
  EXPECT_EQ("Nothing to clean\n", out.text());
  ASSERT_EQ(3u, all.size());
  EXPECT_EQ("a", all[0]->getName());
  EXPECT_EQ("b", all[1]->getName());
  EXPECT_EQ("c", all[2]->getName());
  EXPECT_EQ("", all[0]->getDescription());
  EXPECT_EQ("Column a", all[0]->getWidgetName());
  for (WidgetsData* record : all) delete record;
}

TEST_F(QueryTest, DuplicateNamesAreAnIntegrityProblem) {
  createWidgetsTableWithoutConstraints(registry_.path() + "/widget.db");
  addWidget("twin");
  addWidget("twin");
  CaptureStdout out;
  {
    WidgetQuery query("twin");
    EXPECT_EQ(nullptr, query.getInfo({"en"}));
  }
  EXPECT_EQ(
      "It's not possible to see this log. Database integrity problem\n"
      "'name' Field in 'Widgets' Table must be unique\n"
      "Nothing to clean\n",
      out.text());
}

TEST_F(QueryTest, UnopenableRegistryAnswersSilently) {
  ScopedEnv elsewhere("YRA_DATA_PATH", registry_.path() + "/missing/dir/");
  CaptureStdout out;
  {
    WidgetQuery query("clock");
    EXPECT_EQ(nullptr, query.getInfo({"en"}));
    EXPECT_TRUE(query.getAll().empty());
  }
  const std::string text = out.text();
  EXPECT_EQ(std::string::npos, text.find("No widget with this name"));
  ASSERT_GE(text.size(), 17u);
  EXPECT_EQ("Nothing to clean\n", text.substr(text.size() - 17));
}

TEST_F(QueryTest, InjectedNamesFindNothing) {
  addWidget("clock");
  for (const char* name : {"x' OR '1'='1", "clock'", "' OR ''='"}) {
    CaptureStdout out;
    {
      WidgetQuery query(name);
      EXPECT_EQ(nullptr, query.getInfo({"en"})) << name;
    }
    EXPECT_EQ("No widget with this name\nNothing to clean\n", out.text());
  }
}

TEST_F(QueryTest, LocaleWithQuoteIsSkippedNotInjected) {
  addWidget("clock", {{"name", {{"default", "Clock"}, {"fr", "Horloge"}}}});
  CaptureStdout out;
  WidgetQuery query("clock");
  WidgetsData* record = query.getInfo({"x' OR '1'='1", "de"});
  ASSERT_NE(nullptr, record);
  EXPECT_EQ("Clock", record->getWidgetName());
  delete record;
}

TEST_F(QueryTest, LaterJobsSeeNewRowsAndAReplacedRegistry) {
  addWidget("first");
  CaptureStdout out;
  auto countAll = [] {
    WidgetQuery query("");
    std::vector<WidgetsData*> all = query.getAll();
    for (WidgetsData* record : all) delete record;
    return all.size();
  };
  EXPECT_EQ(1u, countAll());
  addWidget("second");
  EXPECT_EQ(2u, countAll());

  // A registry file removed between jobs is a new, empty registry.
  ASSERT_EQ(0, unlink((registry_.path() + "/widget.db").c_str()));
  EXPECT_EQ(0u, countAll());
  addWidget("third");
  EXPECT_EQ(1u, countAll());

  // Another registry directory is another registry.
  TempDir other;
  ScopedEnv elsewhere("YRA_DATA_PATH", other.path() + "/");
  EXPECT_EQ(0u, countAll());
  {
    WidgetQuery query("third");
    EXPECT_EQ(nullptr, query.getInfo({}));
  }
}
