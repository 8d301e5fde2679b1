// SPDX-License-Identifier: Apache-2.0
// Registering widgets, their files and localized texts; removing them; the
// job transaction; values holding quote characters.
#include <gtest/gtest.h>

#include <string>

#include "testing/RegistryTestUtil.h"
#include "registry/SqlLite3.h"
#include "testing/CaptureStdout.h"
#include "testing/OutputChecks.h"

using registrytest::deleteAll;
using registrytest::makeWidget;
using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

// Passes when inserting w is refused (-1) with the one line that says so.
::testing::AssertionResult insertIsRefused(SqlLite3& db, WidgetsData& w) {
  CaptureStdout out;
  const int id = db.insertWidget(&w);
  return returnedAndPrinted("insertWidget()", id, -1, out.text(),
                            "Cannot insert data to database :(\n");
}

}  // namespace

TEST_F(RegistryTest, WidgetWithThreeFilesGetsOneRowAndThreeFileRowsInOrder) {
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  WidgetsData other = makeWidget("other", {"a.html"});
  ASSERT_EQ(1, db.insertWidget(&other));
  WidgetsData w = makeWidget("clock", {"index.html", "icon.png", "locales/fr/index.html"});
  CaptureStdout out;
  EXPECT_EQ(2, db.insertWidget(&w));
  EXPECT_EQ("", out.text());
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{
                "2", "http://example.com/clock.wgt", "clock",
                "file:///widgets/widget_clock/index.html",
                "/widgets/widget_clock/", "320", "240", "1.0", "Widget clock",
                "Wclock", "windowed", "icon.png", "Ann", "ann@example.com",
                "http://example.com/ann"}),
            raw.cells("SELECT * FROM Widgets WHERE id=2"));
  EXPECT_EQ((std::vector<std::string>{"2", "index.html", "2", "icon.png", "2",
                                      "locales/fr/index.html"}),
            raw.cells("SELECT widgetID, path FROM widgetFiles WHERE "
                      "widgetID=2 ORDER BY id"));
}

TEST_F(RegistryTest, SecondWidgetWithTheSameSourceURLIsRefusedOnce) {
  SqlLite3 db;
  WidgetsData w = makeWidget("clock", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&w));
  WidgetsData again = makeWidget("clock2", {"index.html"});
  again.setSourceURL(w.getSourceURL());
  EXPECT_TRUE(insertIsRefused(db, again));
  Raw raw(dbPath());
  EXPECT_EQ("1", raw.one("SELECT COUNT(*) FROM Widgets"));
  EXPECT_EQ("1", raw.one("SELECT COUNT(*) FROM widgetFiles"));
}

TEST_F(RegistryTest, FilePathWithDoubleQuoteLosesOnlyItsOwnRow) {
  SqlLite3 db;
  WidgetsData w = makeWidget("q", {"a.html", "b\".html", "c.html"});
  CaptureStdout out;
  EXPECT_EQ(1, db.insertWidget(&w));
  EXPECT_EQ("", out.text());
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"a.html", "c.html"}),
            raw.cells("SELECT path FROM widgetFiles ORDER BY id"));
}

TEST_F(RegistryTest, FilePathWithNulByteLosesOnlyItsOwnRow) {
  SqlLite3 db;
  WidgetsData w = makeWidget("n", {"a.html", std::string("b\0c.html", 8)});
  EXPECT_EQ(1, db.insertWidget(&w));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"a.html"}),
            raw.cells("SELECT path FROM widgetFiles ORDER BY id"));
}

TEST_F(RegistryTest, WidgetValueWithApostropheIsRefusedLikeABrokenStatement) {
  SqlLite3 db;
  const char* attempts[] = {"x' OR '1'='1", "it's", "'"};
  for (const char* value : attempts) {
    WidgetsData byName = makeWidget("a", {"index.html"});
    byName.setName(value);
    WidgetsData byAuthor = makeWidget("b", {"index.html"});
    byAuthor.setAuthorHref(value);
    EXPECT_TRUE(insertIsRefused(db, byName)) << value;
    EXPECT_TRUE(insertIsRefused(db, byAuthor)) << value;
  }
  WidgetsData nul = makeWidget("c");
  nul.setVersion(std::string("1\0", 2));
  EXPECT_TRUE(insertIsRefused(db, nul));
  Raw raw(dbPath());
  EXPECT_EQ("0", raw.one("SELECT COUNT(*) FROM Widgets"));
  EXPECT_EQ("0", raw.one("SELECT COUNT(*) FROM widgetFiles"));
}

TEST_F(RegistryTest, IdBeyondIntIsReportedAfterTheFileRowsAreWritten) {
  SqlLite3 db;
  ASSERT_EQ(0, db.query("INSERT INTO Widgets (id, name) VALUES (2147483647, 'top')"));
  WidgetsData w = makeWidget("big", {"index.html"});
  CaptureStdout out;
  EXPECT_EQ(0, db.insertWidget(&w));
  EXPECT_EQ("[E:SqlLite3] Error convering widgetId to int : 2147483648\n",
            out.text());
  Raw raw(dbPath());
  EXPECT_EQ("2147483648", raw.one("SELECT widgetID FROM widgetFiles"));
}

TEST_F(RegistryTest, LocalizedTextWithApostropheIsNotStoredTheOthersAre) {
  SqlLite3 db;
  std::map<std::string, std::string> texts = {
      {"en", "Clock"}, {"fr", "L'horloge"}, {"de", "Uhr"}};
  EXPECT_EQ(0, db.insertLocalizedItems(3, "name", texts));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"3", "name", "de", "Uhr", "3", "name",
                                      "en", "Clock"}),
            raw.cells("SELECT widgetID, item, lang, value FROM localizedItem "
                      "ORDER BY id"));
}

TEST_F(RegistryTest, LocalizedTextsAreInsertedInLanguageOrder) {
  SqlLite3 db;
  std::map<std::string, std::string> texts = {
      {"fr", "Horloge"}, {"default", "Clock"}, {"en", "Clock (en)"}};
  EXPECT_EQ(0, db.insertLocalizedItems(1, "description", texts));
  EXPECT_EQ(0, db.insertLocalizedItems(1, "license", {}));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"default", "en", "fr"}),
            raw.cells("SELECT lang FROM localizedItem ORDER BY id"));
}

TEST_F(RegistryTest, LocalizedItemWithQuoteInItemOrLanguageIsNotStored) {
  SqlLite3 db;
  EXPECT_EQ(0, db.insertLocalizedItems(1, "name' OR '1'='1", {{"en", "x"}}));
  EXPECT_EQ(0, db.insertLocalizedItems(
                   1, "name", {{"en', 'x'); DELETE FROM Widgets; --", "x"},
                               {"fr", "y"}}));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"name", "fr", "y"}),
            raw.cells("SELECT item, lang, value FROM localizedItem"));
}

TEST_F(RegistryTest, DeleteByNameRemovesOnlyThatWidget) {
  SqlLite3 db;
  WidgetsData a = makeWidget("a", {"index.html"});
  WidgetsData b = makeWidget("b", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&a));
  ASSERT_EQ(2, db.insertWidget(&b));
  EXPECT_EQ(0, db.deleteWidgetByName("a"));
  EXPECT_EQ(0, db.deleteWidgetByName("nobody"));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"b"}), raw.cells("SELECT name FROM Widgets"));
  // File rows stay behind; only the Widgets row goes.
  EXPECT_EQ("2", raw.one("SELECT COUNT(*) FROM widgetFiles"));
}

TEST_F(RegistryTest, DeleteWithInjectedNameFailsAndDeletesNothing) {
  SqlLite3 db;
  WidgetsData a = makeWidget("a");
  ASSERT_EQ(1, db.insertWidget(&a));
  EXPECT_EQ(1, db.deleteWidgetByName("x' OR '1'='1"));
  EXPECT_EQ(1, db.deleteWidgetByName("a'"));
  EXPECT_EQ(1, db.deleteWidgetByName(std::string("a\0", 2)));
  Raw raw(dbPath());
  EXPECT_EQ("1", raw.one("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(RegistryTest, JobWritesAppearToOthersAtItsEndAndFailuresStayAlone) {
  SqlLite3 db;
  WidgetsData taken = makeWidget("taken");
  ASSERT_EQ(1, db.insertWidget(&taken));
  db.beginJob();
  WidgetsData w = makeWidget("job", {"index.html", "a.js"});
  EXPECT_EQ(2, db.insertWidget(&w));
  WidgetsData clash = makeWidget("taken");
  EXPECT_TRUE(insertIsRefused(db, clash));
  EXPECT_EQ(0, db.insertLocalizedItems(2, "name", {{"en", "Job"}}));
  {
    Raw raw(dbPath());
    EXPECT_EQ("1", raw.one("SELECT COUNT(*) FROM Widgets"));
  }
  // The job's own connection sees its rows before the end.
  std::string name;
  EXPECT_EQ(1, db.getNameByLaunchURL(w.getLaunchURL(), name));
  EXPECT_EQ("job", name);
  db.endJob();
  Raw raw(dbPath());
  EXPECT_EQ("2", raw.one("SELECT COUNT(*) FROM Widgets"));
  EXPECT_EQ("2", raw.one("SELECT COUNT(*) FROM widgetFiles WHERE widgetID=2"));
  EXPECT_EQ("Job", raw.one("SELECT value FROM localizedItem"));
}

TEST_F(RegistryTest, JobLeftOpenKeepsItsWritesWhenTheConnectionCloses) {
  {
    SqlLite3 db;
    db.beginJob();
    WidgetsData w = makeWidget("left", {"index.html"});
    EXPECT_EQ(1, db.insertWidget(&w));
  }
  Raw raw(dbPath());
  EXPECT_EQ("left", raw.one("SELECT name FROM Widgets"));
}

TEST_F(RegistryTest, InsertedRecordReadsBackWhole) {
  SqlLite3 db;
  WidgetsData w = makeWidget("round", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&w));
  std::vector<WidgetsData*> rows = db.selectAllWidgets();
  ASSERT_EQ(1u, rows.size());
  const WidgetsData& r = *rows[0];
  EXPECT_EQ(1, r.getId());
  EXPECT_EQ(w.getSourceURL(), r.getSourceURL());
  EXPECT_EQ(w.getName(), r.getName());
  EXPECT_EQ(w.getLaunchURL(), r.getLaunchURL());
  EXPECT_EQ(w.getStoragePath(), r.getStoragePath());
  EXPECT_EQ(320, r.getWidth());
  EXPECT_EQ(240, r.getHeight());
  EXPECT_EQ(w.getVersion(), r.getVersion());
  EXPECT_EQ(w.getWidgetName(), r.getWidgetName());
  EXPECT_EQ(w.getWidgetShorName(), r.getWidgetShorName());
  EXPECT_EQ(w.getViewMode(), r.getViewMode());
  EXPECT_EQ(w.getIcon(), r.getIcon());
  EXPECT_EQ(w.getAuthor(), r.getAuthor());
  EXPECT_EQ(w.getAuthorEmail(), r.getAuthorEmail());
  EXPECT_EQ(w.getAuthorHref(), r.getAuthorHref());
  EXPECT_TRUE(r.getFiles().empty());
  EXPECT_TRUE(r.getDescription().empty());
  deleteAll(rows);
}

// An update's rows: a text holding a quote is refused before SQLite sees
// it, with a reason of its own, and the old rows stay.
TEST_F(RegistryTest, ReplacedRowsWithAQuoteAreRefusedWithTheirReason) {
  SqlLite3 db;
  WidgetsData w = makeWidget("kept", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&w));
  WidgetsData next = makeWidget("kept", {"index.html", "new.html"});
  next.setVersion("2.0 'beta'");
  ASSERT_TRUE(db.beginExclusiveJob());
  EXPECT_FALSE(db.replaceWidgetRows(1, next));
  EXPECT_EQ("a text of config.xml holds a quote or a NUL character: 2.0 'beta'",
            db.lastError());
  db.rollbackJob();
  EXPECT_EQ(std::string::npos, db.lastError().find("config.xml"));

  next.setVersion("2.0");
  ASSERT_TRUE(db.beginExclusiveJob());
  EXPECT_TRUE(db.replaceWidgetRows(1, next));
  ASSERT_TRUE(db.endJob());
  Raw raw(dbPath());
  EXPECT_EQ("2.0", raw.one("SELECT version FROM Widgets WHERE id = 1"));
  EXPECT_EQ("2", raw.one("SELECT COUNT(*) FROM widgetFiles WHERE widgetID = 1"));
}
