// SPDX-License-Identifier: Apache-2.0
// Opening the registry, its tables, the generic query routine, and files
// that are not usable registries.
#include "registry/SqlLite3.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "testing/RegistryTestUtil.h"
#include "registry/Statements.h"
#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"

using registrytest::ExclusiveLock;
using registrytest::makeWidget;
using registrytest::Raw;
using registrytest::RegistryTest;
using registrytest::runInChild;

namespace {

const char kStructureError[] =
    "[E:SqlLite3] Error while checking database structure";

std::string openFailure(const std::string& path, const std::string& reason) {
  return "[E:SqlLite3] Can't open database: [E:SqlLite3] sqlite3 error "
         "message : " +
         reason +
         "\n[E:SqlLite3] HAVE YOU READ AND WRITE PERMISSION FOR OPEN OR CREATE "
         "THIS FILE : " +
         path + "\n";
}

// Runs sql after a query that filled the column names and values, expecting
// result, and both vectors to be empty afterwards.
void expectQueryEmptiesBothVectors(const std::string& sql, int result) {
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  ASSERT_EQ(0, db.query("SELECT 1 AS a"));
  EXPECT_EQ(result, db.query(sql));
  EXPECT_TRUE(db.getColumnNames().empty());
  EXPECT_TRUE(db.getValues().empty());
}

std::string createFailure(const std::string& table, const std::string& why,
                          int code) {
  return "[E:SqlLite3] Unable to create table " + table + " :  " + why + " (" +
         std::to_string(code) + ")\n";
}

}  // namespace

TEST(DatabasePathTest, DefaultDirectoryWhenTheVariableIsUnset) {
  ScopedEnv unset("YRA_DATA_PATH");
  std::string path = SqlLite3::databasePath();
  EXPECT_TRUE(path == std::string(WIDGETENGINE_BINARY_DIR) +
                          "/sandbox/conf/widget.db" ||
              path == "/Customer/.yra/conf/widget.db")
      << path;
}

TEST(DatabasePathTest, VariableIsGluedToTheFileNameWithoutSeparator) {
  {
    ScopedEnv env("YRA_DATA_PATH", "/tmp/x/");
    EXPECT_EQ("/tmp/x/widget.db", SqlLite3::databasePath());
  }
  ScopedEnv env("YRA_DATA_PATH", "/tmp/x");
  EXPECT_EQ("/tmp/xwidget.db", SqlLite3::databasePath());
}

TEST(DatabasePathTest, RelativeDirectoryIsOpenedFromTheWorkingDirectoryOfTheMoment) {
  ScopedEnv env("YRA_DATA_PATH", "conf/");
  EXPECT_EQ("conf/widget.db", SqlLite3::databasePath());
  TempDir first;
  TempDir second;
  ASSERT_EQ(0, mkdir((first.path() + "/conf").c_str(), 0755));
  ASSERT_EQ(0, mkdir((second.path() + "/conf").c_str(), 0755));
  const int back = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(back, 0);
  CaptureStdout quiet;
  for (const TempDir* place : {&first, &second}) {
    ASSERT_EQ(0, chdir(place->path().c_str()));
    SqlLite3 registry;
    EXPECT_TRUE(registry.isOpen());
  }
  ASSERT_EQ(0, fchdir(back));
  close(back);
  EXPECT_TRUE(TempDir::exists(first.path() + "/conf/widget.db"));
  EXPECT_TRUE(TempDir::exists(second.path() + "/conf/widget.db"));
}

TEST_F(RegistryTest, FreshFileGetsTheThreeTablesVerbatim) {
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_TRUE(db.isOpen());
  }
  EXPECT_EQ("", out.text());
  Raw raw(dbPath());
  EXPECT_EQ(statements::kCreateWidgets,
            raw.one("SELECT sql FROM sqlite_master WHERE name='Widgets'"));
  EXPECT_EQ(statements::kCreateWidgetFiles,
            raw.one("SELECT sql FROM sqlite_master WHERE name='widgetFiles'"));
  EXPECT_EQ(statements::kCreateLocalizedItem,
            raw.one("SELECT sql FROM sqlite_master WHERE name='localizedItem'"));
}

TEST_F(RegistryTest, SecondOpeningFindsTheTablesAndCreatesNothing) {
  { SqlLite3 first; }
  Raw raw(dbPath());
  std::vector<std::string> before =
      raw.cells("SELECT type, name, sql FROM sqlite_master ORDER BY name");
  std::string counter = raw.one("PRAGMA schema_version");
  CaptureStdout out;
  {
    SqlLite3 second;
    EXPECT_TRUE(second.isOpen());
  }
  EXPECT_EQ("", out.text());
  EXPECT_EQ(before,
            raw.cells("SELECT type, name, sql FROM sqlite_master ORDER BY name"));
  EXPECT_EQ(counter, raw.one("PRAGMA schema_version"));
}

TEST_F(RegistryTest, LookupIndexesAreAddedToAnExistingFileLeavingTablesAlone) {
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK, raw.exec(statements::kCreateWidgets));
    ASSERT_EQ(SQLITE_OK, raw.exec(statements::kCreateWidgetFiles));
    ASSERT_EQ(SQLITE_OK, raw.exec(statements::kCreateLocalizedItem));
  }
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  Raw raw(dbPath());
  EXPECT_EQ("2", raw.one("SELECT COUNT(*) FROM sqlite_master WHERE type='index' "
                         "AND sql IS NOT NULL"));
  EXPECT_EQ(statements::kCreateWidgets,
            raw.one("SELECT sql FROM sqlite_master WHERE name='Widgets'"));
}

TEST_F(RegistryTest, WidgetsTableWithOtherColumnsIsAcceptedUnchanged) {
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK, raw.exec("CREATE TABLE Widgets(a, b)"));
    ASSERT_EQ(SQLITE_OK, raw.exec("INSERT INTO Widgets VALUES(1, 2)"));
  }
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_TRUE(db.isOpen());
  }
  EXPECT_EQ("", out.text());
  Raw raw(dbPath());
  EXPECT_EQ("CREATE TABLE Widgets(a, b)",
            raw.one("SELECT sql FROM sqlite_master WHERE name='Widgets'"));
  EXPECT_EQ("1", raw.one("SELECT a FROM Widgets"));
}

TEST_F(RegistryTest, UncreatableWidgetFilesStopsTheCheckBeforeLocalizedItem) {
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK, raw.exec(statements::kCreateWidgets));
    // An index holding the name makes the table impossible to create.
    ASSERT_EQ(SQLITE_OK, raw.exec("CREATE INDEX widgetFiles ON Widgets(name)"));
  }
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_FALSE(db.isOpen());
  }
  EXPECT_EQ(createFailure("widgetFiles",
                          "there is already an index named widgetFiles", 1) +
                kStructureError,
            out.text());
  Raw raw(dbPath());
  EXPECT_EQ("0", raw.one("SELECT COUNT(*) FROM sqlite_master WHERE "
                         "name='localizedItem'"));
}

TEST_F(RegistryTest, QueryFillsColumnNamesAndValuesRowAfterRow) {
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  EXPECT_EQ(0, db.query("SELECT 1 AS a, 'x' AS b UNION ALL SELECT 2, NULL"));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), db.getColumnNames());
  EXPECT_EQ((std::vector<std::string>{"1", "x", "2", ""}), db.getValues());
}

TEST_F(RegistryTest, QueryMatchingNothingLeavesBothVectorsEmpty) {
  expectQueryEmptiesBothVectors("SELECT * FROM Widgets WHERE name = 'nobody'",
                                0);
}

TEST_F(RegistryTest, QueryWithSyntaxErrorReturnsOneAndEmptyVectors) {
  expectQueryEmptiesBothVectors("SELEC nothing", 1);
}

TEST_F(RegistryTest, RandomBytesFailTheCheckAndStayUntouched) {
  std::string junk;
  for (int i = 0; i < 8192; ++i) junk.push_back(static_cast<char>(i * 131 + 7));
  TempDir::writeFile(dbPath(), junk);
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_FALSE(db.isOpen());
    EXPECT_TRUE(db.selectAllWidgets().empty());
    std::string name;
    EXPECT_EQ(0, db.getNameByLaunchURL("file:///x", name));
  }
  EXPECT_EQ(createFailure("widgets", "file is not a database", 26) +
                kStructureError,
            out.text());
  EXPECT_EQ(junk, TempDir::readFile(dbPath()));
}

TEST_F(RegistryTest, ZeroLengthFileIsAnEmptyRegistryThatGetsItsTables) {
  TempDir::writeFile(dbPath(), "");
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_TRUE(db.isOpen());
  }
  EXPECT_EQ("", out.text());
  Raw raw(dbPath());
  EXPECT_EQ("3", raw.one("SELECT COUNT(*) FROM sqlite_master WHERE type='table' "
                         "AND name IN ('Widgets','widgetFiles','localizedItem')"));
}

TEST_F(RegistryTest, DirectoryInPlaceOfTheFileCannotBeOpened) {
  ASSERT_EQ(0, mkdir(dbPath().c_str(), 0755));
  TempDir::writeFile(dbPath() + "/keep", "keep");
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_FALSE(db.isOpen());
  }
  std::string text = out.text();
  // Depending on how far SQLite gets, the open itself or the first probe
  // refuses the directory; either way nothing is created.
  EXPECT_TRUE(text == openFailure(dbPath(), "unable to open database file") ||
              text == createFailure("widgets", "unable to open database file",
                                    14) + kStructureError)
      << text;
  EXPECT_EQ("keep", TempDir::readFile(dbPath() + "/keep"));
}

TEST_F(RegistryTest, MissingDirectoryGivesTheThreeOpenLines) {
  ScopedEnv env("YRA_DATA_PATH", dir().path() + "/missing/");
  std::string path = dir().path() + "/missing/widget.db";
  CaptureStdout out;
  {
    SqlLite3 db;
    EXPECT_FALSE(db.isOpen());
    EXPECT_EQ(-1, db.insertWidget(nullptr));
  }
  EXPECT_EQ(openFailure(path, "unable to open database file") +
                "Cannot insert data to database :(\n",
            out.text());
  EXPECT_FALSE(TempDir::exists(dir().path() + "/missing"));
}

namespace {

// Runs body in a child that cannot write the file: as root it first gives up
// its privileges (root writes any file). 77 means it could not.
int asReader(const std::string& dir, const std::function<int()>& body,
             std::string* output) {
  return runInChild(
      [&]() {
        if (geteuid() == 0) {
          if (chmod(dir.c_str(), 0755) != 0 || setgid(65534) != 0 ||
              setuid(65534) != 0) {
            return 77;
          }
        }
        return body();
      },
      output);
}

}  // namespace

TEST_F(RegistryTest, ReadOnlyRegistryOpensButRefusesWrites) {
  { SqlLite3 db; }
  std::string before = TempDir::readFile(dbPath());
  ASSERT_EQ(0, chmod(dbPath().c_str(), 0444));
  ASSERT_EQ(0, chmod(dir().path().c_str(), 0555));
  std::string output;
  int code = asReader(dir().path(), [] {
    SqlLite3 db;
    if (!db.isOpen()) return 1;
    WidgetsData w = makeWidget("ro", {"index.html"});
    if (db.insertWidget(&w) != -1) return 2;
    if (db.deleteWidgetByName("ro") == 0) return 3;
    return 0;
  }, &output);
  chmod(dir().path().c_str(), 0755);
  if (code == 77) GTEST_SKIP() << "cannot drop root privileges";
  EXPECT_EQ(0, code);
  EXPECT_EQ("Cannot insert data to database :(\n", output);
  EXPECT_EQ(before, TempDir::readFile(dbPath()));
}

TEST_F(RegistryTest, ReadOnlyFileWithoutTablesFailsTheCheck) {
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK, raw.exec("CREATE TABLE other(a)"));
  }
  std::string before = TempDir::readFile(dbPath());
  ASSERT_EQ(0, chmod(dbPath().c_str(), 0444));
  std::string output;
  int code = asReader(dir().path(), [] {
    SqlLite3 db;
    return db.isOpen() ? 1 : 0;
  }, &output);
  if (code == 77) GTEST_SKIP() << "cannot drop root privileges";
  EXPECT_EQ(0, code);
  EXPECT_EQ(createFailure("widgets", "attempt to write a readonly database",
                          8) +
                kStructureError,
            output);
  EXPECT_EQ(before, TempDir::readFile(dbPath()));
}

TEST_F(RegistryTest, ExclusiveLockOfAnotherProcessFailsTheCheckKeepingData) {
  {
    SqlLite3 db;
    WidgetsData w = makeWidget("kept", {"index.html"});
    ASSERT_EQ(1, db.insertWidget(&w));
  }
  std::string before = TempDir::readFile(dbPath());
  {
    ExclusiveLock lock(dbPath());
    ASSERT_TRUE(lock.held());
    CaptureStdout out;
    {
      SqlLite3 db;
      EXPECT_FALSE(db.isOpen());
    }
    EXPECT_EQ(createFailure("widgets", "database is locked", 5) +
                  kStructureError,
              out.text());
  }
  EXPECT_EQ(before, TempDir::readFile(dbPath()));
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  std::vector<WidgetsData*> rows = db.selectWidgetsByName("kept");
  EXPECT_EQ(1u, rows.size());
  registrytest::deleteAll(rows);
}

TEST_F(RegistryTest, StatementsFailWhileAnotherProcessHoldsTheLock) {
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  WidgetsData first = makeWidget("first");
  ASSERT_EQ(1, db.insertWidget(&first));
  ExclusiveLock lock(dbPath());
  ASSERT_TRUE(lock.held());
  CaptureStdout out;
  WidgetsData second = makeWidget("second");
  EXPECT_EQ(-1, db.insertWidget(&second));
  EXPECT_NE(0, db.deleteWidgetByName("first"));
  EXPECT_TRUE(db.selectAllWidgets().empty());
  EXPECT_EQ(5, db.query("SELECT * FROM Widgets"));
  EXPECT_EQ("Cannot insert data to database :(\n", out.text());
}

TEST_F(RegistryTest, HandleIsClosedOnceAfterAFailedCheck) {
  // Run under the sanitizers: a second close or a leak of the handle shows.
  TempDir::writeFile(dbPath(), std::string(4096, 'x'));
  CaptureStdout out;
  std::unique_ptr<SqlLite3> db(new SqlLite3());
  EXPECT_FALSE(db->isOpen());
  EXPECT_FALSE(db->checkStructure());
  EXPECT_EQ(21, db->query("SELECT 1"));
  db.reset();
  EXPECT_EQ(createFailure("widgets", "file is not a database", 26) +
                kStructureError,
            out.text());
}
