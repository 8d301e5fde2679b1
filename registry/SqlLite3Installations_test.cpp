// SPDX-License-Identifier: Apache-2.0
// The registry's record of installations: one token per installed widget,
// the same at every call, retired by a removal, new for a widget installed
// again under the same name, and no table at all until a host asks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "registry/SqlLite3.h"
#include "testing/RegistryTestUtil.h"

using registrytest::makeWidget;
using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

bool isToken(const std::string& text) {
  return text.size() == 32 &&
         text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

TEST_F(RegistryTest, InstallationTokenIsMadeOnceAndKept) {
  SqlLite3 db;
  WidgetsData notes = makeWidget("notes", {"index.html"});
  WidgetsData other = makeWidget("other", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&notes));
  ASSERT_EQ(2, db.insertWidget(&other));

  EXPECT_EQ("", db.installationToken("notes", false));
  const std::string token = db.installationToken("notes", true);
  EXPECT_TRUE(isToken(token)) << token;
  EXPECT_EQ(token, db.installationToken("notes", true));
  EXPECT_EQ(token, db.installationToken("notes", false));
  SqlLite3 another;
  EXPECT_EQ(token, another.installationToken("notes", true));
  const std::string second = db.installationToken("other", true);
  EXPECT_TRUE(isToken(second)) << second;
  EXPECT_NE(token, second);
  // Only an installed widget has one.
  EXPECT_EQ("", db.installationToken("nobody", true));
  Raw raw(dbPath());
  EXPECT_EQ("2", raw.one("SELECT COUNT(*) FROM widgetInstallations"));
}

TEST_F(RegistryTest, RegistryOfAHostThatNeverAsksHasNoInstallationTable) {
  SqlLite3 db;
  WidgetsData notes = makeWidget("notes", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&notes));
  EXPECT_EQ("", db.installationToken("notes", false));
  EXPECT_TRUE(db.retiredInstallations().empty());
  EXPECT_EQ(0, db.deleteWidgetByName("notes"));
  Raw raw(dbPath());
  EXPECT_EQ("0", raw.one("SELECT COUNT(*) FROM sqlite_master WHERE "
                         "name='widgetInstallations'"));
}

TEST_F(RegistryTest, RetiredInstallationGivesAWidgetOfTheSameNameANewToken) {
  SqlLite3 db;
  WidgetsData notes = makeWidget("notes", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&notes));
  const std::string first = db.installationToken("notes", true);
  EXPECT_EQ(0, db.deleteWidgetByName("notes"));
  EXPECT_EQ(std::vector<std::string>{first}, db.retiredInstallations());

  WidgetsData again = makeWidget("notes", {"index.html"});
  again.setSourceURL("http://elsewhere.example/notes.wgt");
  ASSERT_LT(0, db.insertWidget(&again));
  const std::string second = db.installationToken("notes", true);
  EXPECT_TRUE(isToken(second));
  EXPECT_NE(first, second);
  // The retired one stays until it is forgotten, and only it can be.
  EXPECT_EQ(std::vector<std::string>{first}, db.retiredInstallations());
  EXPECT_TRUE(db.forgetInstallation(second));
  EXPECT_EQ(second, db.installationToken("notes", false));
  EXPECT_TRUE(db.forgetInstallation(first));
  EXPECT_TRUE(db.retiredInstallations().empty());
}

// A widget row deleted behind the engine's back, by a tool that knows
// nothing of installations: its installation is retired all the same, and
// not handed to a later widget of the same name.
TEST_F(RegistryTest, InstallationOfAWidgetDeletedBehindTheEngineIsRetired) {
  SqlLite3 db;
  WidgetsData notes = makeWidget("notes", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&notes));
  const std::string first = db.installationToken("notes", true);
  Raw raw(dbPath());
  ASSERT_EQ(SQLITE_OK, raw.exec("DELETE FROM Widgets WHERE name='notes'"));
  EXPECT_EQ("", db.installationToken("notes", false));
  WidgetsData again = makeWidget("notes", {"index.html"});
  ASSERT_LT(0, db.insertWidget(&again));
  const std::string second = db.installationToken("notes", true);
  EXPECT_NE(first, second);
  EXPECT_EQ(std::vector<std::string>{first}, db.retiredInstallations());
}

TEST_F(RegistryTest, InstallationNamesAreBoundNeverPasted) {
  SqlLite3 db;
  WidgetsData notes = makeWidget("notes", {"index.html"});
  ASSERT_EQ(1, db.insertWidget(&notes));
  const std::string token = db.installationToken("notes", true);
  for (const std::string& name :
       {std::string("x' OR '1'='1"), std::string("notes' --"),
        std::string("\" OR name IS NOT NULL --"), std::string("notes\0x", 7),
        std::string("%"), std::string("")}) {
    EXPECT_EQ("", db.installationToken(name, true)) << name;
    EXPECT_TRUE(db.forgetInstallation(name)) << name;
  }
  EXPECT_EQ(token, db.installationToken("notes", false));
  EXPECT_TRUE(db.retiredInstallations().empty());
  Raw raw(dbPath());
  EXPECT_EQ("1", raw.one("SELECT COUNT(*) FROM widgetInstallations"));
}
