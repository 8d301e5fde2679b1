// SPDX-License-Identifier: Apache-2.0
// The in-memory lookups answer exactly what the lookup statements, pasted
// and run through sqlite3_get_table, answer on the same rows. A change that
// an engine makes, in this process or in another, is seen by the very next
// lookup; one that another program makes, within a second. While nothing
// changes, a lookup reads nothing from the file.
#include "registry/LookupCache.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "registry/ChangeCounter.h"

#include "testing/RegistryTestUtil.h"
#include "registry/SqlLite3.h"
#include "testing/LiteralRegistry.h"
#include "testing/NextSecond.h"

using registrytest::makeWidget;
using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

// A registry made by the engine, then filled with rows that exercise every
// corner of the join: file rows left behind by a removed widget, an id given
// again to a new widget, one path reachable through two widgets, a widget
// without directory, case differences, quotes in a directory and a path
// that have localized copies.
void makeTrickyRegistry(const std::string& path) {
  { SqlLite3 create; }
  Raw raw(path);
  const char* sql[] = {
      "INSERT INTO Widgets (id, storagePath, launchURL, name) VALUES "
      "(1, '/w/a/', 'file:///w/a/index.html', 'a'),"
      "(2, '/m/', 'file:///m/index.html', 'm1'),"
      "(3, '/m/ab/', 'file:///m/ab/index.html', 'm2'),"
      "(4, NULL, 'file:///nulldir/index.html', NULL),"
      "(5, '/w/e/', NULL, 'nolaunch'),"
      "(6, '/w/it''s/', 'file:///w/it''s/index.html', 'its')",
      "INSERT INTO widgetFiles (widgetID, path) VALUES "
      "(1, 'index.html'), (1, 'locales/fr/index.html'),"
      "(1, 'locales/de/index.html'), (1, 'Index.html'),"
      "(9, 'orphan.html'), (9, 'locales/fr/orphan.html'),"
      "(7, 'old.html'), (7, 'locales/de/old.html'),"
      "(2, 'ab/c.html'), (3, 'c.html'), (2, 'locales/fr/c.html'),"
      "(3, 'locales/de/c.html'), (4, 'index.html'),"
      "(4, 'locales/fr/index.html'), (1, 'locales/it/index.html'),"
      "(1, 'locales/it/index.html'), (1, 'q''s.html'), (1, 'locales'),"
      "(1, 'localesX.html'), (1, 'locales/fr/localesX.html'),"
      "('abc', 'abc.html'), (1, 'locales/x''/index.html'),"
      "(5, 'e.html'), (5, 'locales/FR/e.html'), (5, 'locales/fr/e.html'),"
      "(1, 'a/b.html'), (1, 'locales/de/a/b.html'),"
      "(1, 'locales/fr/q''s.html'), (6, 'index.html'),"
      "(6, 'locales/fr/index.html')",
      // Widget 7 arrives after its id's old file rows.
      "INSERT INTO Widgets (id, storagePath, launchURL, name) VALUES "
      "(7, '/w/g/', 'file:///w/g/index.html', 'g')",
  };
  for (const char* s : sql) ASSERT_EQ(SQLITE_OK, raw.exec(s)) << s;
}

// A copy of the registry without the engine's added indexes, so that the
// pasted statements run over the tables alone.
std::string plainCopy(const registrytest::RegistryTest*, const std::string& path) {
  std::string copy = path + ".plain";
  TempDir::writeFile(copy, TempDir::readFile(path));
  Raw raw(copy);
  raw.exec("DROP INDEX widgetFiles_widgetID_path");
  raw.exec("DROP INDEX localizedItem_widgetID_item_lang");
  return copy;
}

std::vector<std::string> trickyAddresses() {
  std::vector<std::string> dirs = {"/w/a/", "/m/", "/m/ab/", "/w/g/",
                                   "/w/e/", "/nulldir/", "/w/it's/", ""};
  std::vector<std::string> files = {
      "index.html",    "Index.html",   "INDEX.html",  "orphan.html",
      "old.html",      "ab/c.html",    "c.html",      "q's.html",
      "locales",       "localesX.html", "abc.html",   "e.html",
      "a/b.html",      "locales/fr/index.html",       "index.html?x=1&y=2",
      "c.html?z",      "missing.html"};
  std::vector<std::string> out = {"", "file://", "file:///", "http://x/y"};
  for (const std::string& d : dirs) {
    for (const std::string& f : files) out.push_back("file://" + d + f);
  }
  return out;
}

std::vector<std::vector<std::string>> trickyLocales() {
  return {{},           {"de"},        {"fr"},           {"it", "fr"},
          {"x'", "de"}, {"FR"},        {"de", "fr"},     {"fr", "de"},
          {"x"},        {"en", "it"},  {"fr' OR 'a'='a"}, {"", "fr"}};
}

void expectSameAnswers(SqlLite3& db, LiteralRegistry& literal,
                       const char* mode) {
  for (const std::string& address : trickyAddresses()) {
    for (const std::vector<std::string>& locales : trickyLocales()) {
      std::string mine = address;
      std::string theirs = address;
      int a = db.findLocalizedResource(mine, locales);
      int b = literal.findLocalizedResource(theirs, locales);
      std::string list;
      for (const std::string& l : locales) list += l + ",";
      ASSERT_EQ(b, a) << mode << " " << address << " [" << list << "]";
      ASSERT_EQ(theirs, mine) << mode << " " << address << " [" << list << "]";
    }
  }
  std::vector<std::string> launches = {
      "file:///w/a/index.html", "file:///m/index.html", "file:///m/ab/index.html",
      "file:///nulldir/index.html", "file:///w/g/index.html", "file:///w/e/index.html",
      "file:///W/a/index.html", "", "x\"", "file:///w/a/index.html\""};
  for (const std::string& launch : launches) {
    std::string mine = "?";
    std::string theirs = "?";
    ASSERT_EQ(literal.getNameByLaunchURL(launch, theirs), db.getNameByLaunchURL(launch, mine))
        << mode << " " << launch;
    ASSERT_EQ(theirs, mine) << mode << " " << launch;
  }
}

}  // namespace

TEST_F(RegistryTest, IndexAnswersExactlyAsTheStatementsOnTrickyRows) {
  makeTrickyRegistry(dbPath());
  LiteralRegistry literal(plainCopy(this, dbPath()));
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  expectSameAnswers(db, literal, "index");
}

TEST_F(RegistryTest, StatementsInsideATransactionAnswerExactlyTheSame) {
  makeTrickyRegistry(dbPath());
  LiteralRegistry literal(plainCopy(this, dbPath()));
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  db.beginJob();
  expectSameAnswers(db, literal, "transaction");
  db.endJob();
}

TEST_F(RegistryTest, WalModeFallsBackToStatementsWithTheSameAnswers) {
  makeTrickyRegistry(dbPath());
  LiteralRegistry literal(plainCopy(this, dbPath()));
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  std::string name;
  ASSERT_EQ(1, db.getNameByLaunchURL("file:///w/a/index.html", name));
  ASSERT_EQ(0, db.query("PRAGMA journal_mode=WAL"));
  expectSameAnswers(db, literal, "wal");
  // Writes in WAL mode leave the file's counter alone; the lookups still see
  // them.
  SqlLite3 other;
  WidgetsData w = makeWidget("walnew", {"index.html"});
  ASSERT_GT(other.insertWidget(&w), 0);
  EXPECT_EQ(1, db.getNameByLaunchURL(w.getLaunchURL(), name));
  EXPECT_EQ("walnew", name);
  ASSERT_EQ(0, other.deleteWidgetByName("walnew"));
  EXPECT_EQ(0, db.getNameByLaunchURL(w.getLaunchURL(), name));
}

TEST_F(RegistryTest, TablesOfAnotherShapeAreAnsweredByStatements) {
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK, raw.exec("CREATE TABLE Widgets(id INTEGER PRIMARY KEY, "
                                  "storagePath, launchURL, name)"));
    ASSERT_EQ(SQLITE_OK, raw.exec(
        "INSERT INTO Widgets VALUES (1, '/w/', 'file:///w/i.html', 'w'), "
        "(2, '/v/', 'file:///w/i.html', 'v')"));
  }
  SqlLite3 db;
  ASSERT_TRUE(db.isOpen());
  std::string name;
  // Without the unique constraint two rows match; the first one answers.
  EXPECT_EQ(1, db.getNameByLaunchURL("file:///w/i.html", name));
  EXPECT_EQ("w", name);
}

TEST_F(RegistryTest, ReusedIdJoinsLeftBehindFilesToTheNewWidget) {
  SqlLite3 reader;
  SqlLite3 writer;
  WidgetsData first = makeWidget("first", {"index.html", "locales/de/old.html", "old.html"});
  ASSERT_EQ(1, writer.insertWidget(&first));
  std::string url = "file:///widgets/widget_first/old.html";
  EXPECT_EQ(1, reader.findLocalizedResource(url, {"de"}));
  ASSERT_EQ(0, writer.deleteWidgetByName("first"));
  url = "file:///widgets/widget_first/old.html";
  EXPECT_EQ(0, reader.findLocalizedResource(url, {"de"}));
  WidgetsData second = makeWidget("second", {"index.html"});
  ASSERT_EQ(1, writer.insertWidget(&second));
  url = "file:///widgets/widget_second/old.html";
  EXPECT_EQ(1, reader.findLocalizedResource(url, {"de"}));
  EXPECT_EQ("file:///widgets/widget_second//locales/de/old.html", url);
}

namespace {

// One round of changes: widget r arrives, widget r - 1 goes.
void changeRound(SqlLite3& db, int round) {
  WidgetsData w = makeWidget("w" + std::to_string(round),
                             {"index.html", "locales/fr/index.html"});
  db.insertWidget(&w);
  if (round > 0) db.deleteWidgetByName("w" + std::to_string(round - 1));
}

void expectRound(SqlLite3& db, int round) {
  std::string name;
  std::string current = "w" + std::to_string(round);
  // The listing of every widget is kept between calls too.
  std::vector<std::string> listed;
  for (WidgetsData* w : db.selectAllWidgets()) {
    listed.push_back(w->getName());
    delete w;
  }
  ASSERT_EQ(std::vector<std::string>{current}, listed) << round;
  ASSERT_EQ(1, db.getNameByLaunchURL(
                   "file:///widgets/widget_" + current + "/index.html", name))
      << round;
  ASSERT_EQ(current, name);
  std::string url = "file:///widgets/widget_" + current + "/index.html";
  ASSERT_EQ(1, db.findLocalizedResource(url, {"de", "fr"})) << round;
  ASSERT_EQ("file:///widgets/widget_" + current + "//locales/fr/index.html", url);
  if (round > 0) {
    std::string gone = "w" + std::to_string(round - 1);
    ASSERT_EQ(0, db.getNameByLaunchURL(
                     "file:///widgets/widget_" + gone + "/index.html", name))
        << round;
    url = "file:///widgets/widget_" + gone + "/index.html";
    ASSERT_EQ(0, db.findLocalizedResource(url, {"fr"})) << round;
  }
}

}  // namespace

TEST_F(RegistryTest, ChangesOfAnotherConnectionAreSeenAtTheNextLookup) {
  SqlLite3 reader;
  SqlLite3 writer;
  std::string name;
  EXPECT_EQ(0, reader.getNameByLaunchURL("file:///nothing", name));
  for (int round = 0; round < 60; ++round) {
    changeRound(writer, round);
    expectRound(reader, round);
  }
}

TEST_F(RegistryTest, ChangesOfAnotherProcessAreSeenAtTheNextLookup) {
  SqlLite3 reader;
  ASSERT_TRUE(reader.isOpen());
  std::string name;
  EXPECT_EQ(0, reader.getNameByLaunchURL("file:///nothing", name));
  int go[2], done[2];
  ASSERT_EQ(0, pipe(go));
  ASSERT_EQ(0, pipe(done));
  const int kRounds = 100;
  ChildProcess child;
  child.start([&] {
    close(go[1]);
    close(done[0]);
    SqlLite3 writer;
    char c;
    for (int round = 0; round < kRounds; ++round) {
      if (read(go[0], &c, 1) != 1) return 1;
      changeRound(writer, round);
      if (write(done[1], &c, 1) != 1) return 1;
    }
    return 0;
  });
  close(go[0]);
  close(done[1]);
  for (int round = 0; round < kRounds; ++round) {
    char c = 'x';
    ASSERT_EQ(1, write(go[1], &c, 1));
    ASSERT_EQ(1, read(done[0], &c, 1));
    expectRound(reader, round);
  }
  close(go[1]);
  close(done[0]);
  child.wait();
  EXPECT_TRUE(child.exitedWith(0));
}

TEST_F(RegistryTest, EveryCommitIsSeenAtOnceWhileAnotherProcessAttachesAndLetsGo) {
  // Reader and writer each attach the counter anew in every round, while a
  // third process takes it and lets it go without end, so that it is
  // removed and made again under them all the time. A lookup after each
  // commit must see it: the count of those that did not is the result, and
  // for each of them, how many more lookups it took.
  { SqlLite3 create; }
  registrytest::CounterChurn racer(dbPath());
  ASSERT_TRUE(racer.running());
  int go[2], done[2];
  ASSERT_EQ(0, pipe(go));
  ASSERT_EQ(0, pipe(done));
  const int kRounds = registrytest::raceRounds(1000);
  ChildProcess child;
  child.start([&] {
    close(go[1]);
    close(done[0]);
    char c;
    for (int round = 0; round < kRounds; ++round) {
      if (read(go[0], &c, 1) != 1) return 1;
      {
        SqlLite3 writer;
        changeRound(writer, round);
      }
      if (write(done[1], &c, 1) != 1) return 1;
    }
    return 0;
  });
  close(go[0]);
  close(done[1]);
  int atOnce = 0, stale = 0;
  std::vector<int> lags;
  for (int round = 0; round < kRounds; ++round) {
    SqlLite3 reader;
    std::string name;
    const std::string before =
        "file:///widgets/widget_w" + std::to_string(round - 1) + "/index.html";
    ASSERT_EQ(round > 0 ? 1 : 0, reader.getNameByLaunchURL(before, name)) << round;
    char c = 'x';
    ASSERT_EQ(1, write(go[1], &c, 1));
    ASSERT_EQ(1, read(done[0], &c, 1));
    const std::string after =
        "file:///widgets/widget_w" + std::to_string(round) + "/index.html";
    if (reader.getNameByLaunchURL(after, name) == 1) {
      ++atOnce;
      continue;
    }
    ++stale;
    int lookups = 1;
    while (reader.getNameByLaunchURL(after, name) != 1 && lookups < 300) {
      ++lookups;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    lags.push_back(lookups);
  }
  close(go[1]);
  close(done[0]);
  child.wait();
  EXPECT_TRUE(child.exitedWith(0));
  EXPECT_TRUE(racer.stop());
  std::string seen;
  for (int lookups : lags) seen += " " + std::to_string(lookups);
  std::printf("lookup race: rounds=%d seen-at-once=%d stale=%d\n", kRounds,
              atOnce, stale);
  EXPECT_EQ(kRounds, atOnce + stale);
  EXPECT_EQ(0, stale) << "commits of " << kRounds
                      << " seen late; lookups until seen:" << seen;
  ASSERT_EQ(0, unlink(dbPath().c_str()));
  ChangeCounter::reclaim();
}

TEST_F(RegistryTest, LookupWhileAnotherProcessHoldsTheLockAfterAChangeFindsNothing) {
  SqlLite3 reader;
  std::string name;
  EXPECT_EQ(0, reader.getNameByLaunchURL("file:///nothing", name));
  {
    SqlLite3 writer;
    WidgetsData w = makeWidget("late", {"index.html"});
    ASSERT_EQ(1, writer.insertWidget(&w));
  }
  // The index is out of date and cannot be reloaded under the lock: the
  // lookup fails as its statement would.
  registrytest::ExclusiveLock lock(dbPath());
  ASSERT_TRUE(lock.held());
  EXPECT_EQ(0, reader.getNameByLaunchURL("file:///widgets/widget_late/index.html", name));
  std::string url = "file:///widgets/widget_late/index.html";
  EXPECT_EQ(0, reader.findLocalizedResource(url, {"fr"}));
}

TEST_F(RegistryTest, IndexServesTheRegistryAndStepsAsideWhenItCannotBeTrusted) {
  makeTrickyRegistry(dbPath());
  Raw raw(dbPath());
  LookupCache cache;
  ASSERT_TRUE(cache.fresh(raw.handle()));
  EXPECT_GT(cache.memoryUsed(), 0u);
  std::string name;
  EXPECT_TRUE(cache.nameByLaunchURL("file:///w/a/index.html", name));
  EXPECT_EQ("a", name);

  // One path reachable through two widgets: the first file row's widget id,
  // the last one's directory.
  int64_t id = 0;
  const char* dir = nullptr;
  size_t length = 0;
  ASSERT_EQ(1, cache.fileOwner("/m/ab/c.html", id, dir, length));
  EXPECT_EQ(2, id);
  EXPECT_EQ("/m/ab/", std::string(dir, length));
  // Rows written before widget 7 existed join it now.
  ASSERT_EQ(1, cache.fileOwner("/w/g/old.html", id, dir, length));
  EXPECT_EQ(7, id);
  EXPECT_EQ(1, cache.hasFile(7, "locales/de/old.html"));
  EXPECT_EQ(1, cache.hasFile(9, "locales/fr/orphan.html"));
  EXPECT_EQ(0, cache.fileOwner("/w/a/orphan.html", id, dir, length));
  EXPECT_EQ(0, cache.fileOwner("/nulldir/index.html", id, dir, length));
  EXPECT_EQ(0, cache.fileOwner("/w/a/INDEX.html", id, dir, length));

  ASSERT_EQ(SQLITE_OK, raw.exec("BEGIN"));
  EXPECT_FALSE(cache.fresh(raw.handle()));
  ASSERT_EQ(SQLITE_OK, raw.exec("COMMIT"));
  EXPECT_TRUE(cache.fresh(raw.handle()));

  // A change of shape hands the answers to the statements.
  ASSERT_EQ(SQLITE_OK, raw.exec("ALTER TABLE Widgets ADD COLUMN extra"));
  EXPECT_FALSE(cache.fresh(raw.handle()));
  EXPECT_FALSE(cache.fresh(raw.handle()));
}

TEST_F(RegistryTest, IndexStepsAsideInWalMode) {
  { SqlLite3 create; }
  Raw raw(dbPath());
  LookupCache cache;
  ASSERT_TRUE(cache.fresh(raw.handle()));
  ASSERT_EQ("wal", raw.one("PRAGMA journal_mode=WAL"));
  EXPECT_FALSE(cache.fresh(raw.handle()));
}

TEST_F(RegistryTest, TrickyRowsGiveTheExpectedRedirections) {
  makeTrickyRegistry(dbPath());
  SqlLite3 db;
  std::string url = "file:///m/ab/c.html?z";
  EXPECT_EQ(1, db.findLocalizedResource(url, {"de", "fr"}));
  EXPECT_EQ("file:///m/ab//locales/fr/c.html?z", url);
  url = "file:///w/g/old.html";
  EXPECT_EQ(1, db.findLocalizedResource(url, {"fr", "de"}));
  EXPECT_EQ("file:///w/g//locales/de/old.html", url);
  url = "file:///w/a/a/b.html";
  EXPECT_EQ(1, db.findLocalizedResource(url, {"de"}));
  EXPECT_EQ("file:///w/a//locales/de/a/b.html", url);
  url = "file:///w/e/e.html";
  EXPECT_EQ(1, db.findLocalizedResource(url, {"FR"}));
  EXPECT_EQ("file:///w/e//locales/FR/e.html", url);
  url = "file:///w/a/orphan.html";
  EXPECT_EQ(0, db.findLocalizedResource(url, {"fr"}));
}

namespace {

// Read system calls this process has made so far.
long readCalls() {
  std::ifstream io("/proc/self/io");
  std::string key;
  long value = -1;
  while (io >> key >> value) {
    if (key == "syscr:") return value;
  }
  return -1;
}

void installSome(int count) {
  SqlLite3 db;
  for (int i = 0; i < count; ++i) {
    WidgetsData w = makeWidget("w" + std::to_string(i),
                               {"index.html", "locales/fr/index.html"});
    ASSERT_GT(db.insertWidget(&w), 0);
  }
}

int lookUp(SqlLite3& db, int widget) {
  std::string name;
  std::string url = "file:///widgets/widget_w" + std::to_string(widget) + "/index.html";
  return db.getNameByLaunchURL(url, name) + db.findLocalizedResource(url, {"fr"});
}

}  // namespace

TEST_F(RegistryTest, LookupsReadNothingFromTheFileWhileNothingChanges) {
  installSome(20);
  SqlLite3 db;
  for (int i = 0; i < 20; ++i) ASSERT_EQ(2, lookUp(db, i));  // files read
  const auto start = std::chrono::steady_clock::now();
  const long before = readCalls();
  ASSERT_GE(before, 0);
  for (int i = 0; i < 20000; ++i) ASSERT_EQ(2, lookUp(db, i % 20)) << i;
  const long calls = readCalls() - before;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::steady_clock::now() - start).count();
  // The header once a second, and the reading of /proc itself.
  EXPECT_LE(calls, 2 * (seconds + 2) + 20) << seconds << " s";
}

TEST_F(RegistryTest, ChangesOfAnotherProgramAreSeenWithinASecond) {
  installSome(2);
  SqlLite3 db;
  ASSERT_EQ(2, lookUp(db, 1));
  ASSERT_EQ(0, lookUp(db, 7));
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK,
              raw.exec("INSERT INTO Widgets (id, storagePath, launchURL, name) "
                       "VALUES (9, '/widgets/widget_w7/', "
                       "'file:///widgets/widget_w7/index.html', 'w7');"
                       "INSERT INTO widgetFiles (widgetID, path) VALUES "
                       "(9, 'index.html'), (9, 'locales/fr/index.html');"
                       "DELETE FROM Widgets WHERE name='w1'"));
  }
  // Seen once the monotonic second has moved on, when lookups read the
  // file's header again.
  waitForTheNextSecond();
  EXPECT_EQ(2, lookUp(db, 7));
  EXPECT_EQ(0, lookUp(db, 1));
}

TEST_F(RegistryTest, ACounterOthersMayWriteLeavesEveryLookupReadingTheFile) {
  { SqlLite3 create; }
  struct stat status;
  ASSERT_EQ(0, stat(dbPath().c_str(), &status));
  const int planted = shmget(ChangeCounter::keyOf(status.st_dev, status.st_ino),
                             ChangeCounter::kSegmentSize,
                             IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_GE(planted, 0);
  installSome(2);
  SqlLite3 db;
  ASSERT_EQ(2, lookUp(db, 1));
  // Whatever the planted counter says, a change is seen at the next lookup.
  void* memory = shmat(planted, nullptr, 0);
  if (memory != reinterpret_cast<void*>(-1)) {
    *static_cast<uint32_t*>(memory) += 5;
    shmdt(memory);
  }
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK, raw.exec("DELETE FROM Widgets WHERE name='w1'"));
  }
  EXPECT_EQ(0, lookUp(db, 1));
  const long before = readCalls();
  for (int i = 0; i < 100; ++i) lookUp(db, 0);
  EXPECT_GE(readCalls() - before, 100);
  shmctl(planted, IPC_RMID, nullptr);
}

TEST_F(RegistryTest, AWidgetsFilesAreReadWhenALookupFirstNeedsThem) {
  installSome(100);
  Raw raw(dbPath());
  LookupCache cache;
  ASSERT_TRUE(cache.fresh(raw.handle()));
  const size_t widgetsOnly = cache.memoryUsed();
  int64_t id = 0;
  const char* dir = nullptr;
  size_t length = 0;
  ASSERT_EQ(1, cache.fileOwner("/widgets/widget_w5/index.html", id, dir, length));
  EXPECT_EQ("/widgets/widget_w5/", std::string(dir, length));
  EXPECT_EQ(1, cache.hasFile(id, "locales/fr/index.html"));
  const size_t oneWidget = cache.memoryUsed() - widgetsOnly;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(1, cache.fileOwner("/widgets/widget_w" + std::to_string(i) + "/index.html",
                                 id, dir, length));
  }
  const size_t everyWidget = cache.memoryUsed() - widgetsOnly;
  EXPECT_GT(oneWidget, 0u);
  EXPECT_LE(oneWidget * 50, everyWidget);

  // Files read after another program's commit are not mixed with the
  // widgets read before it: the lookup hands over to the statements.
  LookupCache stale;
  ASSERT_TRUE(stale.fresh(raw.handle()));
  ASSERT_EQ(SQLITE_OK, raw.exec("INSERT INTO widgetFiles (widgetID, path) VALUES (1, 'x')"));
  EXPECT_EQ(-1, stale.fileOwner("/widgets/widget_w0/x", id, dir, length));
  ASSERT_TRUE(stale.fresh(raw.handle()));
  EXPECT_EQ(1, stale.fileOwner("/widgets/widget_w0/x", id, dir, length));
}

TEST_F(RegistryTest, FilesOfEveryWidgetOfALargeRegistryStayWithinTheBudget) {
  { SqlLite3 create; }
  {
    Raw raw(dbPath());
    ASSERT_EQ(SQLITE_OK,
              raw.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                       "FROM n WHERE i < 400) "
                       "INSERT INTO Widgets (id, storagePath, launchURL, name) "
                       "SELECT i, '/widgets/widget_w' || i || '/', "
                       "'file:///widgets/widget_w' || i || '/index.html', 'w' || i FROM n"));
    ASSERT_EQ(SQLITE_OK,
              raw.exec("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 "
                       "FROM n WHERE i < 39999) "
                       "INSERT INTO widgetFiles (widgetID, path) "
                       "SELECT 1 + i % 400, CASE WHEN i / 400 = 0 THEN 'index.html' "
                       "WHEN i / 400 = 1 THEN 'locales/fr/index.html' "
                       "ELSE 'resources/picture-number-' || (i / 400) || '.png' END FROM n"));
  }
  Raw raw(dbPath());
  LookupCache cache;
  ASSERT_TRUE(cache.fresh(raw.handle()));
  const size_t widgetsOnly = cache.memoryUsed();
  int64_t id = 0;
  const char* dir = nullptr;
  size_t length = 0;
  size_t most = 0;
  for (int round = 0; round < 2; ++round) {
    for (int i = 1; i <= 400; ++i) {
      const std::string widget = "/widgets/widget_w" + std::to_string(i) + "/";
      ASSERT_EQ(1, cache.fileOwner(widget + "index.html", id, dir, length)) << i;
      ASSERT_EQ(i, id);
      ASSERT_EQ(widget, std::string(dir, length));
      ASSERT_EQ(1, cache.hasFile(id, "locales/fr/index.html")) << i;
      ASSERT_EQ(0, cache.hasFile(id, "locales/de/index.html")) << i;
      most = std::max(most, cache.memoryUsed() - widgetsOnly);
    }
  }
  // 400 widgets of 100 files hold some 3 MB; at most one budget's worth is
  // kept, with the table that finds them.
  EXPECT_LE(most, (size_t{1} << 20) + 64 * 1024);
  EXPECT_GT(most, size_t{512} * 1024);
}
