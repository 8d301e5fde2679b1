// SPDX-License-Identifier: Apache-2.0
// The fault suite: engines in processes of their own (testing/driver) raced
// against each other, killed at many points, run against a registry that
// another connection locks, that fills its file system, or that is truncated
// and replaced under them. Every case prints one line with the trials it ran
// and the count of each outcome it saw, and fails on any count other than
// the one it expects; a lost row, lost directory, crash, hang or leftover is
// never expected.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/ConfigXml.h"
#include "testing/FileWatch.h"
#include "testing/ScopedTmpfs.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

const std::string kDriver = WIDGETENGINE_BINARY_DIR "/engine_driver";

// A driver process, its two outputs as one.
class Driver : public ChildProcess {
 public:
  explicit Driver(const std::vector<std::string>& args) {
    mergeOutput();
    std::vector<std::string> argv = {kDriver};
    argv.insert(argv.end(), args.begin(), args.end());
    start(argv);
  }
  std::string output() const { return out(); }
};

// Two installations started together, both ended.
struct InstallRace {
  InstallRace(const std::string& firstURL, const std::string& secondURL)
      : a({"install", firstURL}), b({"install", secondURL}) {
    a.wait();
    b.wait();
  }
  Driver a;
  Driver b;
};

class FaultTest : public WidgetSandbox {
 protected:
  std::string clock(const std::string& fileName, const std::string& page,
                    int extraFiles = 0) {
    ZipBuilder zip;
    zip.addFile("config.xml", configXml("<name>Clock</name>"))
        .addFile("index.html", page)
        .addFile("locales/fr/index.html", "<p>heure</p>");
    for (int i = 0; i < extraFiles; ++i)
      zip.addFile("img/p" + std::to_string(i) + ".txt", std::string(2000, 'a' + i % 26));
    return "file://" + writePackage(fileName, zip);
  }


  std::vector<std::string> column(const std::string& sql) {
    std::vector<std::string> values;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2((conf + "widget.db").c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, 5000);
      sqlite3_stmt* stmt = nullptr;
      if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK) {
        while (sqlite3_step(stmt) == SQLITE_ROW) {
          const unsigned char* text = sqlite3_column_text(stmt, 0);
          values.push_back(text ? reinterpret_cast<const char*>(text) : "");
        }
      }
      sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return values;
  }

  // Every outcome a case sees, counted by name. The audit's findings and a
  // crash are failures; a case names what else it expects, and how often.
  struct Tally {
    int trials = 0;
    std::map<std::string, int> seen;
    std::string what;  // the details of what went wrong, for the message

    void count(const std::string& outcome, const std::string& detail = "") {
      ++seen[outcome];
      if (!detail.empty()) what += " " + detail;
    }
    int operator[](const std::string& outcome) const {
      const auto found = seen.find(outcome);
      return found == seen.end() ? 0 : found->second;
    }
  };

  // The registry and the disk agree: the file passes integrity_check, every
  // row has its directory with its start page, every widget directory has
  // its row, nothing is left in tmp/ and no lock file stays. Counts what
  // does not hold as lost-rows, lost-dirs and leftovers.
  void audit(Tally& t) {
    if (TempDir::exists(conf + "widget.db")) {
      const std::vector<std::string> check = column("PRAGMA integrity_check");
      if (check.size() != 1 || check[0] != "ok") t.count("leftovers", "integrity");
    }
    std::set<std::string> rowDirs;
    for (const std::string& path : column("SELECT storagePath FROM Widgets")) {
      rowDirs.insert(path);
      if (!TempDir::exists(path + "index.html")) t.count("lost-dirs", "no-dir:" + path);
    }
    for (const std::string& entry : TempDir::listDirectory(root)) {
      if (entry == "tmp") continue;
      if (entry.compare(0, 7, "widget_") == 0) {
        if (!rowDirs.count(root + entry + "/")) t.count("lost-rows", "no-row:" + entry);
      } else {
        t.count("leftovers", "left:" + entry);
      }
    }
    for (const std::string& entry : TempDir::listDirectory(root + "tmp"))
      t.count("leftovers", "tmp:" + entry);
  }

  // A driver's end: a crash or a hang is counted, whatever else the case
  // expects of it.
  static void ended(Tally& t, const Driver& driver, const std::string& who) {
    if (driver.hung()) t.count("hangs", "hung:" + who);
    if (driver.crashed()) t.count("crashes", "crashed:" + who);
  }

  // The same, and then the end counted as ok when the driver exited with 0,
  // as notOk otherwise (with what it printed, unless that end is one of the
  // expected ones).
  static void ended(Tally& t, const Driver& driver, const std::string& ok,
                    const std::string& notOk, bool explain = true) {
    ended(t, driver, notOk);
    if (driver.exitedWith(0))
      t.count(ok);
    else
      t.count(notOk, explain ? notOk + ":" + driver.output() : "");
  }

  // One line with the trials and every count, and a failure for each count
  // that is not as expected: those in expected as given, all others 0.
  void report(const char* name, const Tally& t,
              const std::map<std::string, int>& expected = {}) {
    std::map<std::string, int> all = expected;
    for (const auto& outcome : t.seen) all.emplace(outcome.first, 0);
    for (const char* failure : {"lost-rows", "lost-dirs", "crashes", "hangs", "leftovers"})
      all.emplace(failure, 0);
    std::string counts;
    for (const auto& outcome : all)
      counts += " " + outcome.first + "=" + std::to_string(t[outcome.first]);
    std::printf("faults: %s trials=%d%s%s\n", name, t.trials, counts.c_str(),
                t.what.c_str());
    for (const auto& outcome : all)
      EXPECT_EQ(outcome.second, t[outcome.first])
          << name << ": " << outcome.first << " of " << t.trials << " trials:" << t.what;
  }

  void wipe() {
    for (const std::string& entry : TempDir::listDirectory(root))
      if (entry != "tmp") TempDir::removeTree(root + entry);
    for (const std::string& entry : TempDir::listDirectory(conf))
      TempDir::removeTree(conf + entry);
  }
};

const int kTrials = 20;

TEST_F(FaultTest, SameURLRacedEndsWithOneWidget) {
  const std::string url = clock("clock.wgt", "<p>one</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();
    InstallRace race(url, url);
    // Both answer the launch URL: one installed it, the other found it.
    ended(t, race.a, "answered", "refused");
    ended(t, race.b, "answered", "refused");
    if (count("SELECT COUNT(*) FROM Widgets") != 1) t.count("lost-rows", "rows");
    audit(t);
  }
  report("same-url", t, {{"answered", 2 * kTrials}, {"refused", 0}});
}

TEST_F(FaultTest, SameNameRacedKeepsTheFirstAndRefusesTheSecond) {
  mkdir((packages + "b").c_str(), 0755);
  const std::string first = clock("clock.wgt", "<p>one</p>", 40);
  const std::string second = clock("b/clock.wgt", "<p>two</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();
    InstallRace race(first, second);
    ended(t, race.a, "first");
    ended(t, race.b, "second");
    // One wins; the other is refused with the reason.
    const bool aWon = race.a.exitedWith(0);
    const bool bWon = race.b.exitedWith(0);
    if (aWon != bWon) {
      t.count("won");
      const std::string loser = aWon ? race.b.output() : race.a.output();
      if (loser.find("is taken by the widget installed from") != std::string::npos)
        t.count("refused");
      else
        t.count("refused-without-reason", "loser:" + loser);
    } else {
      t.count("wrong-winners", "winners=" + std::to_string(aWon + bWon));
    }
    const std::vector<std::string> source = column("SELECT sourceURL FROM Widgets");
    const std::string page = TempDir::readFile(root + "widget_clock/index.html");
    if (source.size() != 1 ||
        page != (source[0] == first ? "<p>one</p>" : "<p>two</p>")) {
      t.count("mixed", "mixed");
    }
    audit(t);
  }
  report("same-name", t,
         {{"won", kTrials}, {"refused", kTrials}, {"wrong-winners", 0},
          {"refused-without-reason", 0}, {"mixed", 0}});
}

TEST_F(FaultTest, DifferentWidgetsRacedAreBothInstalled) {
  const std::string clockURL = clock("clock.wgt", "<p>one</p>", 40);
  const std::string calendarURL = clock("calendar.wgt", "<p>cal</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();  // a new registry each time: both create its tables at once
    InstallRace race(clockURL, calendarURL);
    ended(t, race.a, "installed", "refused");
    ended(t, race.b, "installed", "refused");
    audit(t);
  }
  report("different-widgets", t, {{"installed", 2 * kTrials}, {"refused", 0}});
}

TEST_F(FaultTest, LookupsDuringInstallsAndRemovalsNeverSayNo) {
  Driver keeper({"install", clock("keeper.wgt", "<p>k</p>")});
  keeper.wait();
  ASSERT_TRUE(keeper.exitedWith(0)) << keeper.output();
  const std::string launch = "file://" + root + "widget_keeper/index.html";
  const std::string stop = dir.file("stop");
  Driver lookups({"is-widget", launch, "100000", stop});
  const int kCycles = 40;
  Driver cycles({"cycle", clock("other.wgt", "<p>o</p>", 20), "other",
                 std::to_string(kCycles)});
  cycles.wait();
  TempDir::writeFile(stop, "");
  lookups.wait();
  Tally t;
  t.trials = kCycles;
  ended(t, cycles, "cycles");
  ended(t, lookups, "lookups");
  // "calls=C wrong=W": every lookup of the widget kept all along said yes.
  const std::string answer = lookups.output();
  long calls = -1, wrong = -1;
  if (std::sscanf(answer.substr(answer.rfind("calls=")).c_str(), "calls=%ld wrong=%ld",
                  &calls, &wrong) != 2) {
    t.count("unreadable", "lookups:" + answer);
  }
  std::printf("faults: lookups calls=%ld wrong=%ld\n", calls, wrong);
  EXPECT_GE(calls, 100000) << answer;
  EXPECT_EQ(0, wrong) << answer;
  EXPECT_TRUE(lookups.exitedWith(0)) << answer;
  EXPECT_TRUE(cycles.exitedWith(0)) << cycles.output();
  EXPECT_NE(std::string::npos,
            cycles.output().find("rounds=" + std::to_string(kCycles) + " failures=0"))
      << cycles.output();
  audit(t);
  report("install-against-lookups", t);
}

TEST_F(FaultTest, InstallRacedWithRemovalLeavesAWholeWidgetOrNone) {
  const std::string url = clock("clock.wgt", "<p>one</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();
    Driver a({"install", url});
    // Not a wait: the removal starts at a different point of the
    // installation in each trial.
    std::this_thread::sleep_for(std::chrono::milliseconds(i % 5));
    Driver b({"remove", "clock"});
    a.wait();
    b.wait();
    // The installation always succeeds; the removal finds the widget or
    // does not.
    ended(t, a, "installed", "install-refused");
    ended(t, b, "removed", "not-removed", false);
    audit(t);
  }
  // The removal comes before or after the installation took the name: each
  // as often as it happened, together every trial.
  EXPECT_EQ(kTrials, t["removed"] + t["not-removed"]);
  report("install-against-remove", t,
         {{"installed", kTrials}, {"install-refused", 0}, {"removed", t["removed"]},
          {"not-removed", t["not-removed"]}});
}

TEST_F(FaultTest, InstallWaitsForAnotherConnectionsExclusiveLock) {
  Driver first({"install", clock("clock.wgt", "<p>c</p>")});
  first.wait();
  ASSERT_TRUE(first.exitedWith(0)) << first.output();
  Tally t;
  const int kRounds = 5;
  for (int i = 0; i < kRounds; ++i, ++t.trials) {
    sqlite3* holder = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &holder));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));
    const std::string name = "w" + std::to_string(i);
    Driver install({"install", clock(name + ".wgt", "<p>" + name + "</p>")});
    Driver lookup({"is-widget", "file://" + root + "widget_clock/index.html", "1"});
    // Not a wait: the lock is held for a while, as a long commit of another
    // program would hold it, and both must outlast it.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    install.wait();
    lookup.wait();
    ended(t, install, "installed", "install-refused");
    ended(t, lookup, "found", "lookup-said-no");
  }
  audit(t);
  report("exclusive-lock", t,
         {{"installed", kRounds}, {"install-refused", 0}, {"found", kRounds},
          {"lookup-said-no", 0}});
}

TEST_F(FaultTest, RegistryChangedUnderALiveEngineIsNoCrash) {
  Driver first({"install", clock("clock.wgt", "<p>c</p>")});
  first.wait();
  ASSERT_TRUE(first.exitedWith(0)) << first.output();
  const std::string db = conf + "widget.db";
  const std::string saved = TempDir::readFile(db);
  const std::string launch = "file://" + root + "widget_clock/index.html";
  const char* const changes[] = {"truncate", "replace", "remove", "unreadable", "garbage"};
  Tally t;
  for (const char* change : changes) {
    ++t.trials;
    TempDir::writeFile(db, saved);
    chmod(db.c_str(), 0644);
    const std::string ready = dir.file(std::string("ready-") + change);
    FileWatch watchReady(dir.path());
    // Looks up for 600 ms after its first round, with the file changed
    // under it once that round is done.
    Driver watch({"watch", launch, "600", ready});
    ASSERT_TRUE(watchReady.waitFor([&] { return TempDir::exists(ready); }))
        << "the engine never made its first lookups: " << watch.output();
    const std::string c = change;
    if (c == "truncate") {
      EXPECT_EQ(0, truncate(db.c_str(), 0));
    } else if (c == "replace") {
      TempDir::writeFile(db + ".new", saved);
      EXPECT_EQ(0, rename((db + ".new").c_str(), db.c_str()));
    } else if (c == "remove") {
      EXPECT_EQ(0, unlink(db.c_str()));
    } else if (c == "unreadable") {
      EXPECT_EQ(0, chmod(db.c_str(), 0));
    } else {
      const int fd = open(db.c_str(), O_WRONLY);
      EXPECT_EQ(4096, write(fd, std::string(4096, '\xff').data(), 4096));
      close(fd);
    }
    watch.wait();
    ended(t, watch, "lived", std::string("failed-") + change);
  }
  chmod(db.c_str(), 0644);
  report("registry-changed", t,
         {{"lived", static_cast<int>(sizeof changes / sizeof *changes)}});
}

TEST_F(FaultTest, KilledInstallsLeaveNothingForEver) {
  // A package large enough that download, unpacking, parsing and
  // registration each take a measurable share of an installation.
  const std::string url = clock("clock.wgt", "<p>c</p>", 600);
  const std::string other = clock("other.wgt", "<p>o</p>");
  wipe();
  const auto start = std::chrono::steady_clock::now();
  Driver whole({"install", url});
  whole.wait();
  ASSERT_TRUE(whole.exitedWith(0)) << whole.output();
  const long span = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - start).count();
  Tally t;
  const int points = 30;
  for (int i = 0; i < points; ++i, ++t.trials) {
    wipe();
    Driver victim({"install", url});
    // Not a wait: the kill points are spread over one installation's span.
    std::this_thread::sleep_for(std::chrono::microseconds(span * i / points));
    victim.kill(SIGKILL);
    victim.wait();
    // Killed with something left for the next one to find, or not.
    if (TempDir::listDirectory(root).size() > 1 ||
        !TempDir::listDirectory(root + "tmp").empty()) {
      t.count("interrupted");
    } else {
      t.count("killed-clean");
    }
    // The next installation, of another widget, cleans up after it.
    Driver next({"install", other});
    next.wait();
    ended(t, next, "next-installed", "next-failed");
    audit(t);
    // A widget that was registered before the kill stays whole; one that
    // was not can be installed again.
    Driver again({"install", url});
    again.wait();
    ended(t, again, "reinstalled", "not-reinstallable");
    audit(t);
  }
  std::printf("faults: kill points spread over %ld us, %d of %d left files behind\n",
              span, t["interrupted"], points);
  EXPECT_GE(t["interrupted"], points / 3) << "the kills came too early or too late";
  report("sigkill", t,
         {{"interrupted", t["interrupted"]}, {"killed-clean", points - t["interrupted"]},
          {"next-installed", points}, {"next-failed", 0}, {"reinstalled", points},
          {"not-reinstallable", 0}});
}

TEST_F(FaultTest, FullFileSystemUnderTheRegistryNeverReportsALostInstall) {
  ScopedTmpfs full(conf, "size=256k,mode=0755");
  if (!full.mounted()) {
    std::printf("faults: full-disk skipped: %s\n", full.whyNot().c_str());
    GTEST_SKIP() << full.whyNot();
  }
  Tally t;
  // Each widget adds a few hundred file rows; the registry fills the small
  // file system at some step of some installation.
  for (int i = 0; i < 40 && t["refused"] < 3; ++i, ++t.trials) {
    const std::string name = "w" + std::to_string(i);
    Driver install({"install", clock(name + ".wgt", "<p>" + name + "</p>", 300)});
    install.wait();
    ended(t, install, "installed", "refused", false);
    const int rows = count("SELECT COUNT(*) FROM Widgets WHERE name='" + name + "'");
    if (install.exitedWith(0) && rows != 1)
      t.count("lost-rows", "reported-but-missing:" + name);
    if (!install.exitedWith(0) && rows != 0)
      t.count("leftovers", "refused-but-registered:" + name);
    audit(t);
  }
  full.unmount();
  EXPECT_GT(t["refused"], 0) << "the file system never filled";
  EXPECT_EQ(t.trials, t["installed"] + t["refused"]);
  report("full-disk", t, {{"installed", t["installed"]}, {"refused", t["refused"]}});
}

}  // namespace
