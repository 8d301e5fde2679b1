// SPDX-License-Identifier: Apache-2.0
// Reading widget records, the launch-URL lookup, localized resources and
// localized texts.
#include <gtest/gtest.h>

#include <string>

#include "registry/LocalizedItemKeys.h"
#include "testing/RegistryTestUtil.h"
#include "registry/SqlLite3.h"
#include "testing/CaptureStdout.h"

using registrytest::deleteAll;
using registrytest::makeWidget;
using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

// Registers widgets "a" and "b", which get ids 1 and 2.
void insertAAndB(SqlLite3& db) {
  WidgetsData a = makeWidget("a");
  WidgetsData b = makeWidget("b");
  ASSERT_EQ(1, db.insertWidget(&a));
  ASSERT_EQ(2, db.insertWidget(&b));
}

class LookupTest : public RegistryTest {
 protected:
  void SetUp() override {
    db_.reset(new SqlLite3());
    ASSERT_TRUE(db_->isOpen());
    WidgetsData w = makeWidget("clock", {"index.html", "style.css",
                                         "locales/fr/index.html",
                                         "locales/fr/style.css"});
    ASSERT_EQ(1, db_->insertWidget(&w));
  }
  SqlLite3& db() { return *db_; }
  const std::string dir = "/widgets/widget_clock/";

 private:
  std::unique_ptr<SqlLite3> db_;
};

}  // namespace

TEST_F(RegistryTest, SelectWidgetsWithNoMatchingRowIsEmpty) {
  SqlLite3 db;
  std::vector<WidgetsData*> rows = db.selectWidgets("SELECT * FROM Widgets");
  EXPECT_TRUE(rows.empty());
  rows = db.selectWidgetsByName("nobody");
  EXPECT_TRUE(rows.empty());
}

TEST_F(RegistryTest, SelectWidgetsReturnsEveryRowInOrder) {
  SqlLite3 db;
  ASSERT_NO_FATAL_FAILURE(insertAAndB(db));
  std::vector<WidgetsData*> rows = db.selectWidgets("SELECT * FROM Widgets");
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("a", rows[0]->getName());
  EXPECT_EQ("b", rows[1]->getName());
  deleteAll(rows);
  rows = db.selectWidgets("SELECT * FROM Widgets ORDER BY id DESC");
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ(2, rows[0]->getId());
  deleteAll(rows);
  rows = db.selectAllWidgets();
  EXPECT_EQ(2u, rows.size());
  deleteAll(rows);
}

TEST_F(RegistryTest, SelectWidgetsOfFewerThanFifteenColumnsYieldsNoRecord) {
  SqlLite3 db;
  WidgetsData a = makeWidget("a");
  ASSERT_EQ(1, db.insertWidget(&a));
  EXPECT_TRUE(db.selectWidgets("SELECT id, name FROM Widgets").empty());
  EXPECT_TRUE(db.selectWidgets("SELECT nonsense").empty());
}

TEST_F(RegistryTest, SelectWidgetsRunsAStatementWithoutRowsAndYieldsNoRecord) {
  SqlLite3 db;
  ASSERT_NO_FATAL_FAILURE(insertAAndB(db));
  EXPECT_TRUE(db.selectWidgets("DELETE FROM Widgets WHERE name = 'a'").empty());
  EXPECT_TRUE(
      db.selectWidgets("INSERT INTO Widgets (id, name) VALUES (9, 'c')").empty());
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"b", "c"}),
            raw.cells("SELECT name FROM Widgets ORDER BY id"));
}

TEST_F(RegistryTest, NullCellsReadAsEmptyText) {
  SqlLite3 db;
  ASSERT_EQ(0, db.query("INSERT INTO Widgets (id, name) VALUES (4, 'bare')"));
  std::vector<WidgetsData*> rows = db.selectAllWidgets();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(4, rows[0]->getId());
  EXPECT_EQ("bare", rows[0]->getName());
  EXPECT_EQ("", rows[0]->getSourceURL());
  EXPECT_EQ(0, rows[0]->getWidth());
  EXPECT_EQ("", rows[0]->getAuthorHref());
  deleteAll(rows);
  ASSERT_EQ(0, db.query("INSERT INTO Widgets (id, launchURL) VALUES (5, 'file:///n')"));
  std::string name = "unchanged";
  EXPECT_EQ(1, db.getNameByLaunchURL("file:///n", name));
  EXPECT_EQ("", name);
}

TEST_F(RegistryTest, SelectByNameAndBySourceURLRefuseInjection) {
  SqlLite3 db;
  ASSERT_NO_FATAL_FAILURE(insertAAndB(db));
  std::vector<WidgetsData*> rows = db.selectWidgetsByName("b");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(2, rows[0]->getId());
  deleteAll(rows);
  rows = db.selectWidgetsBySourceURL("http://example.com/a.wgt");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("a", rows[0]->getName());
  deleteAll(rows);
  EXPECT_TRUE(db.selectWidgetsByName("x' OR '1'='1").empty());
  EXPECT_TRUE(db.selectWidgetsByName(std::string("a\0", 2)).empty());
  EXPECT_TRUE(db.selectWidgetsBySourceURL("x' OR '1'='1").empty());
  EXPECT_TRUE(db.selectWidgetsBySourceURL("http://example.com/a.wgt'").empty());
}

TEST_F(LookupTest, LaunchURLGivesTheWidgetName) {
  std::string name = "unchanged";
  EXPECT_EQ(1, db().getNameByLaunchURL("file://" + dir + "index.html", name));
  EXPECT_EQ("clock", name);
  name = "unchanged";
  EXPECT_EQ(0, db().getNameByLaunchURL("file://" + dir + "INDEX.html", name));
  EXPECT_EQ(0, db().getNameByLaunchURL("file://" + dir, name));
  EXPECT_EQ("unchanged", name);
}

TEST_F(LookupTest, LaunchURLWithDoubleQuoteFindsNothing) {
  std::string name = "unchanged";
  EXPECT_EQ(0, db().getNameByLaunchURL("x\" OR \"1\"=\"1", name));
  EXPECT_EQ(0, db().getNameByLaunchURL("file://" + dir + "index.html\"", name));
  EXPECT_EQ(0, db().getNameByLaunchURL(
                   "file://" + dir + std::string("index.html\0", 11), name));
  EXPECT_EQ("unchanged", name);
}

TEST_F(LookupTest, SecondLocaleMatchesAfterTheFirstIsTried) {
  std::string url = "file://" + dir + "index.html";
  EXPECT_EQ(1, db().findLocalizedResource(url, {"de", "fr"}));
  EXPECT_EQ("file://" + dir + "/locales/fr/index.html", url);
}

TEST_F(LookupTest, QueryPartIsIgnoredForTheMatchAndKept) {
  std::string url = "file://" + dir + "index.html?a=1";
  EXPECT_EQ(1, db().findLocalizedResource(url, {"de", "fr"}));
  EXPECT_EQ("file://" + dir + "/locales/fr/index.html?a=1", url);
}

TEST_F(LookupTest, FileAlreadyInALocaleFolderIsNotRedirected) {
  std::string url = "file://" + dir + "locales/fr/index.html";
  EXPECT_EQ(0, db().findLocalizedResource(url, {"fr"}));
  EXPECT_EQ("locales/fr/index.html", url);
}

TEST_F(LookupTest, UnregisteredFileIsNotRedirected) {
  std::string url = "file://" + dir + "missing.html?q";
  EXPECT_EQ(0, db().findLocalizedResource(url, {"fr"}));
  EXPECT_EQ(dir + "missing.html", url);
  url = "file://" + dir + "style.css";
  EXPECT_EQ(0, db().findLocalizedResource(url, {"de"}));
  EXPECT_EQ("style.css", url);
  url = "file://" + dir + "index.html";
  EXPECT_EQ(0, db().findLocalizedResource(url, {}));
}

TEST_F(LookupTest, AddressOrLocaleWithApostropheFindsNothing) {
  std::string url = "file://" + dir + "index.html' OR '1'='1";
  EXPECT_EQ(0, db().findLocalizedResource(url, {"fr"}));
  url = "file://" + dir + "index.html";
  // A locale that would break its statement is skipped; the next one runs.
  EXPECT_EQ(1, db().findLocalizedResource(
                   url, {"x' OR '1'='1", std::string("fr\0", 3), "fr"}));
  EXPECT_EQ("file://" + dir + "/locales/fr/index.html", url);
  url = "file://" + dir + "index.html";
  EXPECT_EQ(0, db().findLocalizedResource(url, {"fr' OR 'a'='a"}));
}

TEST_F(LookupTest, LocalizedItemsFallBackToDefault) {
  ASSERT_EQ(0, db().insertLocalizedItems(1, "name", {{"default", "Clock"},
                                                     {"fr", "Horloge"}}));
  ASSERT_EQ(0, db().insertLocalizedItems(1, "description",
                                         {{"default", "Tells the time"}}));
  ASSERT_EQ(0, db().insertLocalizedItems(2, "license", {{"default", "other"}}));
  std::vector<WidgetsData*> rows = db().selectAllWidgets();
  ASSERT_EQ(1u, rows.size());
  db().loadLocalizedItems(rows[0], {});
  EXPECT_EQ("Clock", rows[0]->getWidgetName());
  EXPECT_EQ("Wclock", rows[0]->getWidgetShorName());
  EXPECT_EQ("Tells the time", rows[0]->getDescription());
  EXPECT_EQ("", rows[0]->getLicense());
  db().loadLocalizedItems(rows[0], {"de", "fr"});
  EXPECT_EQ("Horloge", rows[0]->getWidgetName());
  deleteAll(rows);
}

TEST_F(LookupTest, ItemStoredTwiceForOneLanguageGivesTheLastRow) {
  ASSERT_EQ(0, db().insertLocalizedItems(1, "license", {{"en", "first"}}));
  ASSERT_EQ(0, db().insertLocalizedItems(1, "license", {{"en", "second"}}));
  ASSERT_EQ(0, db().insertLocalizedItems(1, "license", {{"de", "third"}}));
  std::string value;
  EXPECT_EQ(1, db().getLocalizedItem(1, "license", {"en"}, value));
  EXPECT_EQ("second", value);
  WidgetsData w;
  w.setId(1);
  db().loadLocalizedItems(&w, {"fr", "en", "de"});
  EXPECT_EQ("second", w.getLicense());
}

TEST_F(LookupTest, LocalizedItemLookupSkipsBrokenLocalesAndRefusesBrokenItems) {
  ASSERT_EQ(0, db().insertLocalizedItems(1, "name", {{"de", "Uhr"}, {"en", "Clock"}}));
  std::string value = "unchanged";
  EXPECT_EQ(0, db().getLocalizedItem(1, "name' OR '1'='1", {"de"}, value));
  EXPECT_EQ(0, db().getLocalizedItem(1, "name", {"x' OR '1'='1"}, value));
  EXPECT_EQ(0, db().getLocalizedItem(1, "name", {}, value));
  EXPECT_EQ("unchanged", value);
  EXPECT_EQ(1, db().getLocalizedItem(1, "name", {"de' OR 'a'='a", "en"}, value));
  EXPECT_EQ("Clock", value);
  WidgetsData w;
  w.setId(1);
  db().loadLocalizedItems(&w, {"de' --", "en"});
  EXPECT_EQ("Clock", w.getWidgetName());
}

TEST(LocalizedItemKeysTest, FiveKeysInTheirOrder) {
  EXPECT_EQ(5, localizeditems::kCount);
  EXPECT_STREQ("name", localizeditems::kAll[0]);
  EXPECT_STREQ("shortname", localizeditems::kAll[1]);
  EXPECT_STREQ("description", localizeditems::kAll[2]);
  EXPECT_STREQ("license", localizeditems::kAll[3]);
  EXPECT_STREQ("licensehref", localizeditems::kAll[4]);
}

// A widget whose directory is empty begins every path; with nothing else
// in the registry's texts, the lookups still answer from its rows.
TEST_F(RegistryTest, WidgetOfAnEmptyDirectoryIsLookedUp) {
  { SqlLite3 create; }
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK,
              raw.exec("INSERT INTO Widgets (id, storagePath, launchURL, name) "
                       "VALUES (1, '', '', '');"
                       "INSERT INTO widgetFiles (widgetID, path) VALUES "
                       "(1, 'index.html'), (1, 'locales/fr/index.html')"));
  }
  SqlLite3 db;
  std::string url = "file://index.html";
  EXPECT_EQ(1, db.findLocalizedResource(url, {"fr"}));
  EXPECT_EQ("file:///locales/fr/index.html", url);
  std::string name = "unchanged";
  EXPECT_TRUE(db.getNameByLaunchURL("", name));
  EXPECT_EQ("", name);
}
