// SPDX-License-Identifier: Apache-2.0
// The widgets' rows as the lookups hold them: a launch URL names the first
// widget that has it, every widget whose directory begins a path is found
// (the same directory twice, as a text and a blob, nested ones, one that
// does not end in '/'),
// and tables of another shape are left to the statements.
#include "registry/WidgetIndex.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "registry/SqlLite3.h"
#include "testing/RegistryTestUtil.h"

using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

// The ids of the widgets whose directory begins path, in id order.
std::vector<int64_t> owners(WidgetIndex& index, const std::string& path) {
  std::vector<int64_t> ids;
  EXPECT_TRUE(index.eachOwnerOf(path.data(), path.size(), [&](uint32_t number) {
    ids.push_back(index.widget(number).id);
    return true;
  }));
  std::sort(ids.begin(), ids.end());
  return ids;
}

// The name the launch URL gives, in brackets, or "none".
std::string nameFor(const WidgetIndex& index, const std::string& url) {
  std::string name;
  return index.nameByLaunchURL(url.data(), url.size(), name) ? "[" + name + "]" : "none";
}

// Loads the rows; whether the tables were of the engine's shape.
bool loadsStandard(WidgetIndex& index, Raw& raw) {
  bool standard = false;
  EXPECT_TRUE(index.load(raw.handle(), standard));
  return standard;
}

TEST_F(RegistryTest, WidgetIndexAnswersLaunchURLsAndDirectoriesOfItsRows) {
  { SqlLite3 create; }
  Raw raw(dbPath());
  ASSERT_EQ(SQLITE_OK,
            raw.exec("INSERT INTO Widgets (id, storagePath, launchURL, name) VALUES "
                     "(1, '/w/a/', 'file:///w/a/index.html', 'a'),"
                     "(2, '/w/a/b/', 'file:///w/a/b/index.html', 'ab'),"
                     "(3, '/w/c/', CAST('file:///w/a/index.html' AS BLOB), 'second a'),"
                     "(4, CAST('/w/c/' AS BLOB), NULL, 'c again'),"
                     "(5, '/w/plain', 'file:///w/plain/index.html', NULL),"
                     "(6, NULL, NULL, 'nowhere')"));
  WidgetIndex index;
  ASSERT_TRUE(loadsStandard(index, raw));

  EXPECT_EQ("[a]", nameFor(index, "file:///w/a/index.html"));
  EXPECT_EQ("[]", nameFor(index, "file:///w/plain/index.html"));
  EXPECT_EQ("none", nameFor(index, "file:///w/a/index.htm"));

  EXPECT_EQ((std::vector<int64_t>{1, 2}), owners(index, "/w/a/b/x.html"));
  EXPECT_EQ((std::vector<int64_t>{1}), owners(index, "/w/a/x.html"));
  EXPECT_EQ((std::vector<int64_t>{3, 4}), owners(index, "/w/c/x.html"));
  EXPECT_EQ((std::vector<int64_t>{5}), owners(index, "/w/plainly.html"));
  EXPECT_EQ((std::vector<int64_t>{}), owners(index, "/w/"));

  // A visit that gives up stops the walk.
  int visits = 0;
  const std::string path = "/w/a/b/x.html";
  EXPECT_FALSE(index.eachOwnerOf(path.data(), path.size(), [&](uint32_t) {
    ++visits;
    return false;
  }));
  EXPECT_EQ(1, visits);

  index.clear();
  EXPECT_EQ("none", nameFor(index, "file:///w/a/index.html"));
  EXPECT_EQ((std::vector<int64_t>{}), owners(index, "/w/a/x.html"));
}

// Empty texts leave nothing in the arena: a directory of no bytes begins
// every path, and an empty launch URL is a key like any other.
TEST_F(RegistryTest, WidgetIndexAnswersRowsOfEmptyTexts) {
  { SqlLite3 create; }
  Raw raw(dbPath());
  ASSERT_EQ(SQLITE_OK, raw.exec("INSERT INTO Widgets (id, storagePath, launchURL, name) "
                                "VALUES (1, '', '', '')"));
  WidgetIndex index;
  ASSERT_TRUE(loadsStandard(index, raw));
  EXPECT_EQ("[]", nameFor(index, ""));
  EXPECT_EQ("none", nameFor(index, "file:///w/a/index.html"));
  EXPECT_EQ((std::vector<int64_t>{1}), owners(index, "/w/a/x.html"));
  EXPECT_EQ((std::vector<int64_t>{1}), owners(index, ""));
}

TEST_F(RegistryTest, WidgetIndexReadsNoRowsOfTablesOfAnotherShape) {
  { SqlLite3 create; }
  Raw raw(dbPath());
  ASSERT_EQ(SQLITE_OK, raw.exec("INSERT INTO Widgets (id, storagePath, launchURL, name) "
                                "VALUES (1, '/w/a/', 'file:///w/a/index.html', 'a')"));
  ASSERT_EQ(SQLITE_OK, raw.exec("ALTER TABLE Widgets ADD COLUMN extra TEXT"));
  WidgetIndex index;
  EXPECT_FALSE(loadsStandard(index, raw));
  EXPECT_EQ("none", nameFor(index, "file:///w/a/index.html"));
}

}  // namespace
