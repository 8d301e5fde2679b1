// SPDX-License-Identifier: Apache-2.0
// The answers of update checks kept beside the widgets' rows: made only by
// the first check that keeps one, read back per widget and address, and
// gone once their widget is.
#include <gtest/gtest.h>

#include <string>

#include "registry/SqlLite3.h"
#include "testing/CaptureStdout.h"
#include "testing/RegistryTestUtil.h"

using registrytest::makeWidget;
using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

const char kHref[] = "http://updates.test/clock.xml";

int insert(SqlLite3& db, const std::string& name) {
  WidgetsData widget = makeWidget(name, {"index.html"});
  CaptureStdout quiet;
  return db.insertWidget(&widget);
}

}  // namespace

TEST_F(RegistryTest, RegistryNeverCheckedKeepsItsThreeTables) {
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  const int id = insert(db, "clock");
  SqlLite3::UpdateAnswer answer;
  EXPECT_FALSE(db.readUpdateAnswer(id, kHref, &answer));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"3"}),
            raw.cells("SELECT COUNT(*) FROM sqlite_master WHERE type='table' "
                      "AND name NOT LIKE 'sqlite_%'"));
}

TEST_F(RegistryTest, KeptAnswerIsReadBackForItsWidgetAndAddressOnly) {
  SqlLite3 db;
  const int clock = insert(db, "clock");
  const int other = insert(db, "other");
  const std::string document("<update-info/>\0tail", 19);
  ASSERT_TRUE(db.keepUpdateAnswer(clock, kHref, {"\"e1\"", "Tue, 1 Dec 2026", document}));
  SqlLite3::UpdateAnswer answer;
  ASSERT_TRUE(db.readUpdateAnswer(clock, kHref, &answer));
  EXPECT_EQ("\"e1\"", answer.etag);
  EXPECT_EQ("Tue, 1 Dec 2026", answer.lastModified);
  EXPECT_EQ(document, answer.document);
  EXPECT_FALSE(db.readUpdateAnswer(clock, std::string(kHref) + "?v=2", &answer));
  EXPECT_FALSE(db.readUpdateAnswer(other, kHref, &answer));

  ASSERT_TRUE(db.keepUpdateAnswer(clock, kHref, {"\"e2\"", "", "<u/>"}));
  ASSERT_TRUE(db.readUpdateAnswer(clock, kHref, &answer));
  EXPECT_EQ("\"e2\"", answer.etag);
  EXPECT_EQ("", answer.lastModified);
  EXPECT_EQ("<u/>", answer.document);
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{"1"}), raw.cells("SELECT COUNT(*) FROM updateChecks"));
}

TEST_F(RegistryTest, AnswersOfRemovedWidgetsGoAtTheNextKeep) {
  SqlLite3 db;
  const int clock = insert(db, "clock");
  const int other = insert(db, "other");
  ASSERT_TRUE(db.keepUpdateAnswer(clock, kHref, {"\"e1\"", "", "<u/>"}));
  {
    CaptureStdout quiet;
    ASSERT_EQ(0, db.deleteWidgetByName("clock"));
  }
  ASSERT_TRUE(db.keepUpdateAnswer(other, kHref, {"\"e9\"", "", "<u/>"}));
  Raw raw(dbPath());
  EXPECT_EQ((std::vector<std::string>{std::to_string(other)}),
            raw.cells("SELECT widgetID FROM updateChecks"));
}

TEST_F(RegistryTest, KeepingGivesUpOnALockHeldTooLong) {
  SqlLite3 db;
  const int clock = insert(db, "clock");
  Raw raw(dbPath());
  ASSERT_EQ(SQLITE_OK, raw.exec("BEGIN IMMEDIATE"));
  EXPECT_FALSE(db.keepUpdateAnswer(clock, kHref, {"\"e1\"", "", "<u/>"}));
  ASSERT_EQ(SQLITE_OK, raw.exec("COMMIT"));
  EXPECT_TRUE(db.keepUpdateAnswer(clock, kHref, {"\"e1\"", "", "<u/>"}));
}
