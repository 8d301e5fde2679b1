// SPDX-License-Identifier: Apache-2.0
// The fault suite: engines in processes of their own (testing/driver) raced
// against each other, killed at many points, run against a registry that
// another connection locks, that fills its file system, or that is truncated
// and replaced under them. Every case prints one line with the trials it ran
// and the failures it saw, and fails on any lost row, lost directory, crash
// or leftover.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "testing/ConfigXml.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

const std::string kDriver = WIDGETENGINE_BINARY_DIR "/engine_driver";

// A driver process; its output goes to a file of the test's.
class Driver {
 public:
  Driver(const std::vector<std::string>& args, const std::string& outputPath)
      : output_(outputPath) {
    pid_ = fork();
    if (pid_ == 0) {
      const int fd = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
      }
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(kDriver.c_str()));
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(kDriver.c_str(), argv.data());
      _exit(127);
    }
  }
  // The wait status.
  int wait() {
    int status = 0;
    if (pid_ > 0) waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  void kill() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
  }
  std::string output() const { return TempDir::readFile(output_); }
  ~Driver() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }

 private:
  pid_t pid_ = -1;
  std::string output_;
};

bool exitedWith(int status, int code) {
  return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

bool crashed(int status) { return WIFSIGNALED(status); }

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

  std::string out(const std::string& name) { return dir.file(name + ".out"); }


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

  // The registry and the disk agree: the file passes integrity_check, every
  // row has its directory with its start page, every widget directory has
  // its row, nothing is left in tmp/ and no lock file stays. Counts what
  // does not hold into the tallies.
  struct Tally {
    int lostRows = 0;     // a directory without its row
    int lostDirs = 0;     // a row without its directory or start page
    int crashes = 0;
    int leftovers = 0;    // tmp/ files, lock files, a damaged file
    int wrongEnds = 0;    // a race that ended otherwise than it must
    int trials = 0;
    std::string what;
  };

  void audit(Tally& t) {
    if (TempDir::exists(conf + "widget.db")) {
      const std::vector<std::string> check = column("PRAGMA integrity_check");
      if (check.size() != 1 || check[0] != "ok") {
        ++t.leftovers;
        t.what += " integrity";
      }
    }
    std::set<std::string> rowDirs;
    for (const std::string& path : column("SELECT storagePath FROM Widgets")) {
      rowDirs.insert(path);
      if (!TempDir::exists(path + "index.html")) {
        ++t.lostDirs;
        t.what += " no-dir:" + path;
      }
    }
    for (const std::string& entry : TempDir::listDirectory(root)) {
      if (entry == "tmp") continue;
      if (entry.compare(0, 7, "widget_") == 0) {
        if (!rowDirs.count(root + entry + "/")) {
          ++t.lostRows;
          t.what += " no-row:" + entry;
        }
      } else {
        ++t.leftovers;
        t.what += " left:" + entry;
      }
    }
    for (const std::string& entry : TempDir::listDirectory(root + "tmp")) {
      ++t.leftovers;
      t.what += " tmp:" + entry;
    }
  }

  void report(const char* name, const Tally& t) {
    std::printf("faults: %s trials=%d lost-rows=%d lost-dirs=%d crashes=%d "
                "leftovers=%d wrong-ends=%d%s\n",
                name, t.trials, t.lostRows, t.lostDirs, t.crashes, t.leftovers,
                t.wrongEnds, t.what.c_str());
    EXPECT_EQ(0, t.lostRows + t.lostDirs + t.crashes + t.leftovers +
                     t.wrongEnds)
        << name << ":" << t.what;
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
    Driver a({"install", url}, out("a"));
    Driver b({"install", url}, out("b"));
    const int sa = a.wait(), sb = b.wait();
    if (crashed(sa) || crashed(sb)) ++t.crashes;
    // Both answer the launch URL: one installed it, the other found it.
    if (!exitedWith(sa, 0) || !exitedWith(sb, 0)) {
      ++t.wrongEnds;
      t.what += " refused";
    }
    if (count("SELECT COUNT(*) FROM Widgets") != 1) ++t.lostRows;
    audit(t);
  }
  report("same-url", t);
}

TEST_F(FaultTest, SameNameRacedKeepsTheFirstAndRefusesTheSecond) {
  mkdir((packages + "b").c_str(), 0755);
  const std::string first = clock("clock.wgt", "<p>one</p>", 40);
  const std::string second = clock("b/clock.wgt", "<p>two</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();
    Driver a({"install", first}, out("a"));
    Driver b({"install", second}, out("b"));
    const int sa = a.wait(), sb = b.wait();
    if (crashed(sa) || crashed(sb)) ++t.crashes;
    // One wins; the other is refused with the reason.
    const bool aWon = exitedWith(sa, 0);
    const bool bWon = exitedWith(sb, 0);
    if (aWon == bWon) {
      ++t.wrongEnds;
      t.what += " winners=" + std::to_string(aWon + bWon);
    }
    const std::string loser = aWon ? b.output() : a.output();
    if (loser.find("is taken by the widget installed from") == std::string::npos) {
      ++t.leftovers;
      t.what += " no-reason";
    }
    const std::vector<std::string> source = column("SELECT sourceURL FROM Widgets");
    const std::string page = TempDir::readFile(root + "widget_clock/index.html");
    if (source.size() != 1 ||
        page != (source[0] == first ? "<p>one</p>" : "<p>two</p>")) {
      ++t.lostDirs;
      t.what += " mixed";
    }
    audit(t);
  }
  report("same-name", t);
}

TEST_F(FaultTest, DifferentWidgetsRacedAreBothInstalled) {
  const std::string clockURL = clock("clock.wgt", "<p>one</p>", 40);
  const std::string calendarURL = clock("calendar.wgt", "<p>cal</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();  // a new registry each time: both create its tables at once
    Driver a({"install", clockURL}, out("a"));
    Driver b({"install", calendarURL}, out("b"));
    const int sa = a.wait(), sb = b.wait();
    if (crashed(sa) || crashed(sb)) ++t.crashes;
    if (!exitedWith(sa, 0) || !exitedWith(sb, 0)) {
      ++t.lostRows;
      t.what += " failed:" + a.output() + b.output();
    }
    audit(t);
  }
  report("different-widgets", t);
}

TEST_F(FaultTest, LookupsDuringInstallsAndRemovalsNeverSayNo) {
  Driver keeper({"install", clock("keeper.wgt", "<p>k</p>")}, out("keeper"));
  ASSERT_TRUE(exitedWith(keeper.wait(), 0));
  const std::string launch = "file://" + root + "widget_keeper/index.html";
  const std::string stop = dir.file("stop");
  Driver lookups({"is-widget", launch, "100000", stop}, out("lookups"));
  Driver cycles({"cycle", clock("other.wgt", "<p>o</p>", 20), "other", "40"},
                out("cycles"));
  const int sc = cycles.wait();
  TempDir::writeFile(stop, "");
  const int sl = lookups.wait();
  Tally t;
  t.trials = 40;
  if (crashed(sc) || crashed(sl)) ++t.crashes;
  const std::string answer = lookups.output();
  std::printf("faults: lookups %s", answer.c_str());
  EXPECT_TRUE(exitedWith(sl, 0)) << answer;
  EXPECT_NE(std::string::npos, answer.find(" wrong=0")) << answer;
  EXPECT_TRUE(exitedWith(sc, 0)) << cycles.output();
  audit(t);
  report("install-against-lookups", t);
}

TEST_F(FaultTest, InstallRacedWithRemovalLeavesAWholeWidgetOrNone) {
  const std::string url = clock("clock.wgt", "<p>one</p>", 40);
  Tally t;
  for (int i = 0; i < kTrials; ++i, ++t.trials) {
    wipe();
    Driver a({"install", url}, out("a"));
    std::this_thread::sleep_for(std::chrono::milliseconds(i % 5));
    Driver b({"remove", "clock"}, out("b"));
    const int sa = a.wait(), sb = b.wait();
    if (crashed(sa) || crashed(sb)) ++t.crashes;
    audit(t);
  }
  report("install-against-remove", t);
}

TEST_F(FaultTest, InstallWaitsForAnotherConnectionsExclusiveLock) {
  Driver first({"install", clock("clock.wgt", "<p>c</p>")}, out("first"));
  ASSERT_TRUE(exitedWith(first.wait(), 0));
  Tally t;
  for (int i = 0; i < 5; ++i, ++t.trials) {
    sqlite3* holder = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &holder));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));
    const std::string name = "w" + std::to_string(i);
    Driver install({"install", clock(name + ".wgt", "<p>" + name + "</p>")}, out("i"));
    Driver lookup({"is-widget", "file://" + root + "widget_clock/index.html", "1"},
                  out("l"));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    const int si = install.wait(), sl = lookup.wait();
    if (crashed(si) || crashed(sl)) ++t.crashes;
    if (!exitedWith(si, 0)) {
      ++t.lostRows;
      t.what += " install:" + install.output();
    }
    if (!exitedWith(sl, 0)) {
      ++t.lostRows;
      t.what += " lookup:" + lookup.output();
    }
  }
  audit(t);
  report("exclusive-lock", t);
}

TEST_F(FaultTest, RegistryChangedUnderALiveEngineIsNoCrash) {
  Driver first({"install", clock("clock.wgt", "<p>c</p>")}, out("first"));
  ASSERT_TRUE(exitedWith(first.wait(), 0));
  const std::string db = conf + "widget.db";
  const std::string saved = TempDir::readFile(db);
  const std::string launch = "file://" + root + "widget_clock/index.html";
  Tally t;
  for (const char* change : {"truncate", "replace", "remove", "unreadable", "garbage"}) {
    ++t.trials;
    TempDir::writeFile(db, saved);
    chmod(db.c_str(), 0644);
    Driver watch({"watch", launch, "600"}, out("watch"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
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
    const int status = watch.wait();
    if (!exitedWith(status, 0)) {
      ++t.crashes;
      t.what += std::string(" ") + change;
    }
  }
  chmod(db.c_str(), 0644);
  report("registry-changed", t);
}

TEST_F(FaultTest, KilledInstallsLeaveNothingForEver) {
  // A package large enough that download, unpacking, parsing and
  // registration each take a measurable share of an installation.
  const std::string url = clock("clock.wgt", "<p>c</p>", 600);
  const std::string other = clock("other.wgt", "<p>o</p>");
  wipe();
  const auto start = std::chrono::steady_clock::now();
  Driver whole({"install", url}, out("whole"));
  ASSERT_TRUE(exitedWith(whole.wait(), 0)) << whole.output();
  const long span = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - start).count();
  Tally t;
  const int points = 30;
  int interrupted = 0;  // kills that left something for the next one to find
  for (int i = 0; i < points; ++i, ++t.trials) {
    wipe();
    Driver victim({"install", url}, out("victim"));
    std::this_thread::sleep_for(std::chrono::microseconds(span * i / points));
    victim.kill();
    victim.wait();
    if (TempDir::listDirectory(root).size() > 1 ||
        !TempDir::listDirectory(root + "tmp").empty()) {
      ++interrupted;
    }
    // The next installation, of another widget, cleans up after it.
    Driver next({"install", other}, out("next"));
    const int sn = next.wait();
    if (crashed(sn)) ++t.crashes;
    if (!exitedWith(sn, 0)) {
      ++t.wrongEnds;
      t.what += " next-failed";
    }
    audit(t);
    // A widget that was registered before the kill stays whole; one that
    // was not can be installed again.
    Driver again({"install", url}, out("again"));
    if (!exitedWith(again.wait(), 0)) {
      ++t.lostDirs;
      t.what += " not-reinstallable";
    }
    audit(t);
  }
  std::printf("faults: kill points spread over %ld us, %d left files behind\n",
              span, interrupted);
  EXPECT_GE(interrupted, points / 3) << "the kills came too early or too late";
  report("sigkill", t);
}

TEST_F(FaultTest, FullFileSystemUnderTheRegistryNeverReportsALostInstall) {
  if (geteuid() != 0) {
    std::printf("faults: full-disk skipped: mounting a tmpfs needs root\n");
    GTEST_SKIP() << "mounting a tmpfs needs root";
  }
  // A tmpfs is world-writable unless told otherwise, and the engine trusts
  // no registry directory that others can write.
  if (mount("tmpfs", conf.c_str(), "tmpfs", 0, "size=256k,mode=0755") != 0) {
    std::printf("faults: full-disk skipped: mount failed\n");
    GTEST_SKIP() << "mount failed";
  }
  Tally t;
  int refused = 0;
  // Each widget adds a few hundred file rows; the registry fills the small
  // file system at some step of some installation.
  for (int i = 0; i < 40 && refused < 3; ++i, ++t.trials) {
    const std::string name = "w" + std::to_string(i);
    Driver install({"install", clock(name + ".wgt", "<p>" + name + "</p>", 300)},
                   out("install"));
    const int status = install.wait();
    if (crashed(status)) ++t.crashes;
    const int rows = count("SELECT COUNT(*) FROM Widgets WHERE name='" + name + "'");
    if (exitedWith(status, 0) && rows != 1) {
      ++t.lostRows;
      t.what += " reported-but-missing:" + name;
    }
    if (!exitedWith(status, 0)) {
      ++refused;
      if (rows != 0) {
        ++t.leftovers;
        t.what += " refused-but-registered:" + name;
      }
    }
    audit(t);
  }
  std::printf("faults: full-disk refused=%d\n", refused);
  EXPECT_GT(refused, 0) << "the file system never filled";
  umount2(conf.c_str(), MNT_DETACH);
  report("full-disk", t);
}

}  // namespace
