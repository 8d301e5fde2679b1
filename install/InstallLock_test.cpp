// SPDX-License-Identifier: Apache-2.0
#include "install/InstallLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/Refusal.h"
#include "engine/WidgetEngineDelegate.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "registry/SqlLite3.h"
#include "testing/CaptureStdout.h"
#include "testing/ConfigXml.h"
#include "testing/NextSecond.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

struct FreeString {
  void operator()(char* text) const { free(text); }
};
typedef std::unique_ptr<char, FreeString> EngineString;

// True once another holder waits for the lock file at path: the kernel
// lists each waiter of a lock in /proc/locks, marked "->". Nothing tells of
// a thread that starts to wait, so the list is read until it shows one (20 s
// at most).
bool waitsForTheLock(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return false;
  char file[64];
  std::snprintf(file, sizeof file, " %02x:%02x:%lu ", major(status.st_dev),
                minor(status.st_dev), static_cast<unsigned long>(status.st_ino));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < end) {
    std::istringstream locks(TempDir::readFile("/proc/locks"));
    std::string line;
    while (std::getline(locks, line)) {
      if (line.find("-> FLOCK") != std::string::npos &&
          line.find(file) != std::string::npos) {
        return true;
      }
    }
    std::this_thread::yield();
  }
  return false;
}

// isWidget's answer for url, asked now and again each time the monotonic
// second moves on until it is wanted (three seconds at most): an engine
// looks again at a registry file that another program changed once the
// second has moved on. mapResource is asked along, and must not fault.
int answerOnceSeen(RefPtr<WebWidgetEngineDelegate>& engine, const char* url,
                   int wanted) {
  int answer = engine->isWidget(url);
  for (int second = 0; second < 3 && answer != wanted; ++second) {
    waitForTheNextSecond();
    EngineString mapped(engine->mapResource(url, "fr"));
    answer = engine->isWidget(url);
  }
  return answer;
}

class InstallLockTest : public WidgetSandbox {
 protected:
  std::string clockPackage(const std::string& fileName,
                           const std::string& page = "<html></html>",
                           const std::string& body = "<name>Clock</name>") {
    ZipBuilder zip;
    zip.addFile("config.xml", configXml(body)).addFile("index.html", page);
    return "file://" + writePackage(fileName, zip);
  }

  // Installs url with a fresh installer; its status and output.
  int install(const std::string& url, std::string* output = nullptr) {
    CaptureStdout capture;
    int status;
    {
      WidgetInstaller installer(url);
      status = installer.run();
    }
    if (output) *output = capture.text();
    return status;
  }

  int exec(const std::string& sql) {
    sqlite3* db = nullptr;
    int rc = sqlite3_open((conf + "widget.db").c_str(), &db);
    if (rc == SQLITE_OK)
      rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return rc;
  }


  // Writes a journal as an installation that died would have left it.
  void leaveJournal(const std::string& name, const std::string& package,
                    const std::string& storage) {
    TempDir::writeFile(root + ".widget_" + name + ".lock",
                       "package " + package + "\nstorage " + storage + "\n");
  }
};

TEST_F(InstallLockTest, SecondHolderOfANameWaitsForTheFirstUnderAnySpelling) {
  ASSERT_EQ(0, symlink(root.c_str(), (dir.path() + "/link").c_str()));
  // The same root through a link, with doubled slashes and relative to it.
  for (const std::string& spelling :
       {dir.path() + "/link/", root + "/", dir.path() + "//widgets//"}) {
    SCOPED_TRACE(spelling);
    std::unique_ptr<InstallLock> first(new InstallLock(root, "clock"));
    ASSERT_TRUE(first->acquire());
    std::atomic<bool> taken(false);
    std::thread second([&] {
      InstallLock lock(spelling, "clock");
      EXPECT_TRUE(lock.acquire());
      taken = true;
      lock.clear();
    });
    ASSERT_TRUE(waitsForTheLock(root + ".widget_clock.lock"))
        << "the second holder never asked for the lock";
    EXPECT_FALSE(taken);
    // Another name is free all along.
    InstallLock other(spelling, "calendar");
    EXPECT_TRUE(other.acquire());
    other.clear();
    first->clear();
    first.reset();
    second.join();
    EXPECT_TRUE(taken);
  }
  EXPECT_TRUE(rootHoldsOnly({"tmp"}));
}

namespace {

std::string repeated(const std::string& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

}  // namespace

TEST_F(InstallLockTest, LongNamesLockTheSameFileInProcessesOfAnyWordSize) {
  // Names past 200 characters are cut there and a 64-bit FNV-1a of the whole
  // name added: fixed names, whatever process computes them.
  const std::pair<std::string, std::string> cases[] = {
      {repeated("a", 200), ".widget_" + repeated("a", 200) + ".lock"},
      {repeated("a", 201),
       ".widget_" + repeated("a", 200) + "-9a253eda0ce95884.lock"},
      {repeated("clock", 50),
       ".widget_" + repeated("clock", 40) + "-abe6aba4de14a975.lock"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first.size());
    InstallLock lock(root, c.first);
    ASSERT_TRUE(lock.acquire());
    EXPECT_EQ(0, access((root + c.second).c_str(), F_OK)) << c.second;
    lock.clear();
  }
}

TEST_F(InstallLockTest, NextInstallationRemovesWhatADeadOneLeft) {
  // A package half downloaded and a directory half unpacked.
  TempDir::writeFile(root + "tmp/fileAb3dE9", "PK partial");
  ASSERT_EQ(0, mkdir((root + "widget_dead").c_str(), 0755));
  TempDir::writeFile(root + "widget_dead/index.html", "half");
  leaveJournal("dead", root + "tmp/fileAb3dE9", root + "widget_dead/");

  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(InstallLockTest, JournalNeverLeadsToAFileTheEngineDidNotCreate) {
  const std::string precious = dir.path() + "/precious.txt";
  TempDir::writeFile(precious, "keep");
  ASSERT_EQ(0, mkdir((dir.path() + "/elsewhere").c_str(), 0755));
  ASSERT_EQ(0, mkdir((dir.path() + "/elsewhere/widget_x").c_str(), 0755));
  leaveJournal("x", precious, dir.path() + "/elsewhere/widget_x/");
  leaveJournal("y", root + "tmp/fileAb3dE9", root);

  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  EXPECT_EQ("keep", TempDir::readFile(precious));
  EXPECT_TRUE(TempDir::isDirectory(dir.path() + "/elsewhere/widget_x"));
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_clock"));
}

TEST_F(InstallLockTest, JournalOfARegisteredWidgetKeepsItsDirectory) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  // Died after its commit, before it emptied its journal.
  leaveJournal("clock", root + "tmp/fileAb3dE9", root + "widget_clock/");
  ASSERT_EQ(0, install(clockPackage("calendar.wgt")));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_calendar", "widget_clock"}));
  EXPECT_EQ("<html></html>", TempDir::readFile(root + "widget_clock/index.html"));
}

TEST_F(InstallLockTest, LiveInstallationsFilesAreLeftAlone) {
  InstallLock live(root, "busy");
  ASSERT_TRUE(live.acquire());
  TempDir::writeFile(root + "tmp/fileAb3dE9", "PK downloading");
  ASSERT_EQ(0, mkdir((root + "widget_busy").c_str(), 0755));
  ASSERT_TRUE(live.note(root + "tmp/fileAb3dE9", root + "widget_busy/"));

  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  EXPECT_EQ("PK downloading", TempDir::readFile(root + "tmp/fileAb3dE9"));
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_busy"));
}

TEST_F(InstallLockTest, SameNameThroughALinkedRootIsRefusedAndTheFirstIsIntact) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt", "<p>first</p>")));
  ASSERT_EQ(0, symlink(root.c_str(), (dir.path() + "/link").c_str()));
  for (const std::string& spelling :
       {dir.path() + "/link/", dir.path() + "//widgets//"}) {
    SCOPED_TRACE(spelling);
    ScopedEnv widgetPath("WIDGET_PATH", spelling);
    mkdir((packages + "other").c_str(), 0755);
    std::string output;
    EXPECT_EQ(10, install(clockPackage("other/clock.wgt", "<p>second</p>"),
                          &output));
    EXPECT_NE(std::string::npos,
              output.find("The widget name clock is taken by the widget "
                          "installed from file://" + packages + "clock.wgt"))
        << output;
    EXPECT_EQ("<p>first</p>", TempDir::readFile(root + "widget_clock/index.html"));
  }
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(InstallLockTest, ReusedIdShowsNothingOfTheRemovedWidget) {
  CaptureStdout quiet;
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  ZipBuilder french;
  french.addFile("config.xml",
                 configXml("<name>Clock</name><name xml:lang=\"fr\">Horloge</name>"))
      .addFile("index.html", "<p>time</p>")
      .addFile("locales/fr/index.html", "<p>heure</p>");
  const std::string first = "file://" + writePackage("clock.wgt", french);
  EngineString clock(engine->receiveWidget(first.c_str(), nullptr));
  ASSERT_TRUE(clock);
  ASSERT_EQ(1, engine->deleteWidget("clock", nullptr));

  EngineString plain(engine->receiveWidget(clockPackage("plain.wgt", "<p>plain</p>",
                                                        "<name>Plain</name>").c_str(),
                                           nullptr));
  ASSERT_TRUE(plain);
  ASSERT_EQ(1, count("SELECT MAX(id) FROM Widgets"));  // the removed one's id
  std::unique_ptr<WidgetsData> info(engine->getInfo("plain", nullptr, "fr"));
  ASSERT_TRUE(info);
  EXPECT_EQ("Plain", info->getWidgetName());
  EngineString mapped(engine->mapResource(plain.get(), "fr"));
  EXPECT_FALSE(mapped) << mapped.get();
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM localizedItem WHERE lang='fr'"));
}

TEST_F(InstallLockTest, IdBeyondThirtyTwoBitsFailsTheInstallAndCommitsNothing) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  ASSERT_EQ(SQLITE_OK,
            exec("INSERT INTO Widgets (id, sourceURL, name, launchURL, storagePath)"
                 " VALUES (4294967296, 'http://x/big.wgt', 'big', 'file:///big',"
                 " '/big/')"));
  std::string output;
  EXPECT_EQ(10, install(clockPackage("calendar.wgt"), &output));
  EXPECT_NE(std::string::npos, output.find("Error convering widgetId to int"))
      << output;
  EXPECT_EQ(2, count("SELECT COUNT(*) FROM Widgets"));
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets WHERE name='calendar'"));
  EXPECT_FALSE(TempDir::exists(root + "widget_calendar"));
  // And it can be tried again once the registry is sane.
  ASSERT_EQ(SQLITE_OK, exec("DELETE FROM Widgets WHERE name='big'"));
  EXPECT_EQ(0, install(clockPackage("calendar.wgt")));
}

TEST_F(InstallLockTest, RowNamingAnotherDirectoryDeletesNothing) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  for (const std::string& where :
       {root, root + "widget_clock", dir.path() + "/", std::string("/")}) {
    SCOPED_TRACE(where);
    ASSERT_EQ(SQLITE_OK, exec("DELETE FROM Widgets WHERE name='evil'"));
    ASSERT_EQ(SQLITE_OK,
              exec("INSERT INTO Widgets (sourceURL, name, launchURL, storagePath)"
                   " VALUES ('http://x/evil.wgt', 'evil', 'file:///evil', '" +
                   where + "')"));
    CaptureStdout capture;
    {
      WidgetUnInstaller uninstaller("evil");
      EXPECT_EQ(-1, uninstaller.run());
    }
    EXPECT_NE(std::string::npos, capture.text().find("Refusing to delete " + where))
        << capture.text();
    EXPECT_EQ("<html></html>", TempDir::readFile(root + "widget_clock/index.html"));
  }
  EXPECT_TRUE(WidgetUnInstaller::isOwnDirectory("/w/widget_a/", "a"));
  EXPECT_TRUE(WidgetUnInstaller::isOwnDirectory("/w/widget_a", "a"));
  EXPECT_FALSE(WidgetUnInstaller::isOwnDirectory("/widget_a/", "a"));
  EXPECT_FALSE(WidgetUnInstaller::isOwnDirectory("/w/widget_ab/", "a"));
  EXPECT_FALSE(WidgetUnInstaller::isOwnDirectory("widget_a/", "a"));
}

TEST_F(InstallLockTest, TruncatedOrReplacedRegistryUnderALiveEngineIsNoCrash) {
  CaptureStdout quiet;
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  EngineString launch(engine->receiveWidget(clockPackage("clock.wgt").c_str(), nullptr));
  ASSERT_TRUE(launch);
  ASSERT_EQ(1, engine->isWidget(launch.get()));
  // What another program does to the file is seen once the engine looks at
  // it again; until then the lookups may answer from memory, and no lookup
  // faults.
  const auto gone = [&] { return answerOnceSeen(engine, launch.get(), 0) == 0; };
  ASSERT_EQ(0, truncate((conf + "widget.db").c_str(), 0));
  EXPECT_TRUE(gone());
  EngineString mapped(engine->mapResource(launch.get(), "fr"));
  EXPECT_FALSE(mapped);
  for (WidgetsData* w : engine->getAll(nullptr)) delete w;

  TempDir::writeFile(conf + "other.db", std::string(8192, 'x'));
  ASSERT_EQ(0, rename((conf + "other.db").c_str(), (conf + "widget.db").c_str()));
  EXPECT_TRUE(gone());
  ASSERT_EQ(0, unlink((conf + "widget.db").c_str()));
  EXPECT_TRUE(gone());
  EngineString again(engine->mapResource(launch.get(), "fr"));
  EXPECT_FALSE(again);
}

TEST_F(InstallLockTest, RegistryReplacedUnderALiveEngineIsFollowed) {
  CaptureStdout quiet;
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  EngineString launch(engine->receiveWidget(clockPackage("clock.wgt").c_str(), nullptr));
  ASSERT_TRUE(launch);
  TempDir::writeFile(conf + "saved.db", TempDir::readFile(conf + "widget.db"));
  ASSERT_EQ(1, engine->deleteWidget("clock", nullptr));
  ASSERT_EQ(0, engine->isWidget(launch.get()));
  // A copy taken earlier is put back, as a restore would: seen once the
  // engine looks at the file again.
  ASSERT_EQ(0, rename((conf + "saved.db").c_str(), (conf + "widget.db").c_str()));
  EXPECT_EQ(1, answerOnceSeen(engine, launch.get(), 1));
}

TEST_F(InstallLockTest, LookupWaitsForAnotherProcessesWriteLock) {
  CaptureStdout quiet;
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  EngineString launch(engine->receiveWidget(clockPackage("clock.wgt").c_str(), nullptr));
  ASSERT_TRUE(launch);
  // A writer that holds the lock for a moment, as a commit of another
  // process does: the lookup waits for it instead of answering "no".
  sqlite3* writer = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &writer));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(writer, "BEGIN EXCLUSIVE; INSERT INTO "
                                    "localizedItem (widgetID, item, lang, value)"
                                    " VALUES (99, 'name', 'fr', 'x')",
                                    nullptr, nullptr, nullptr));
  std::thread release([&] {
    // Not a wait: the moment the lock is held for.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
  });
  EXPECT_EQ(1, engine->isWidget(launch.get()));
  release.join();
  sqlite3_close(writer);
}

TEST_F(InstallLockTest, EngineCreatedOnALockedRegistryRecoversLater) {
  {
    CaptureStdout quiet;
    ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  }
  const std::string launch = "file://" + root + "widget_clock/index.html";
  ScopedEnv shortWait("WIDGETENGINE_BUSY_TIMEOUT_MS", "50");
  sqlite3* holder = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &holder));
  // Dropping the index makes the engine's opening check go further than its
  // one-statement probe, into statements that need the lock.
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder, "DROP INDEX widgetFiles_widgetID_path;"
                                    "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));
  CaptureStdout quiet;
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  EXPECT_EQ(0, engine->isWidget(launch.c_str()));
  sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  // Tried again at most once a second.
  EXPECT_EQ(1, answerOnceSeen(engine, launch.c_str(), 1));
}

TEST_F(InstallLockTest, JournalNamesOnlyPackagesInTheRootsTmpFolder) {
  // Files of the package form, but not where the engine makes packages.
  ASSERT_EQ(0, mkdir((dir.path() + "/elsewhere").c_str(), 0755));
  const std::string outside = dir.path() + "/elsewhere/fileAb3dE9";
  const std::string inRoot = root + "fileQw3rTy";
  const std::string climbing = root + "tmp/../fileZz9Yy8";
  for (const std::string& path : {outside, inRoot, climbing}) {
    TempDir::writeFile(path, "keep");
  }
  leaveJournal("a", outside, root + "widget_a/");
  leaveJournal("b", inRoot, root + "widget_b/");
  leaveJournal("c", climbing, root + "widget_c/");

  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  for (const std::string& path : {outside, inRoot, climbing}) {
    EXPECT_EQ("keep", TempDir::readFile(path)) << path;
  }
}

TEST_F(InstallLockTest, PackageInTmpThatAnotherUserMadeIsNotRemoved) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  const std::string theirs = root + "tmp/fileAb3dE9";
  TempDir::writeFile(theirs, "theirs");
  ASSERT_EQ(0, chown(theirs.c_str(), 65534, 65534));
  leaveJournal("dead", theirs, root + "widget_dead/");
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  EXPECT_EQ("theirs", TempDir::readFile(theirs));
}

// The real path of the sandbox's root, as the lock names it.
std::string realRoot(const std::string& root) {
  char* real = realpath(root.c_str(), nullptr);
  std::string result = std::string(real) + "/";
  free(real);
  return result;
}

TEST_F(InstallLockTest, LockFileOthersCanWriteRefusesTheInstallation) {
  const std::string lock = root + ".widget_clock.lock";
  TempDir::writeFile(lock, "package " + dir.path() + "/precious\n");
  ASSERT_EQ(0, chmod(lock.c_str(), 0666));
  const std::string url = clockPackage("clock.wgt");
  std::string output;
  EXPECT_EQ(3, install(url, &output));
  EXPECT_EQ("Cannot install " + url + ": the lock file is not safe: " +
                realRoot(root) +
                ".widget_clock.lock is writable by other users (mode 0666)\n"
                "Nothing to clean\n",
            output);
  EXPECT_FALSE(TempDir::exists(root + "widget_clock"));
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(InstallLockTest, LockFileOfAnotherUserRefusesTheInstallation) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  const std::string lock = root + ".widget_clock.lock";
  TempDir::writeFile(lock, "");
  ASSERT_EQ(0, chown(lock.c_str(), 65534, 65534));
  std::string output;
  EXPECT_EQ(3, install(clockPackage("clock.wgt"), &output));
  EXPECT_NE(std::string::npos,
            output.find("the lock file is not safe: " + realRoot(root) +
                        ".widget_clock.lock belongs to another user (uid "
                        "65534)"))
      << output;
  EXPECT_FALSE(TempDir::exists(root + "widget_clock"));
  // Other names are not held up by it.
  EXPECT_EQ(0, install(clockPackage("calendar.wgt")));
}

TEST_F(InstallLockTest, RootOthersCanWriteRefusesInstallAndRemoval) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  ASSERT_EQ(0, chmod(root.c_str(), 01777));
  const std::string url = clockPackage("calendar.wgt");
  std::string output;
  EXPECT_EQ(3, install(url, &output));
  EXPECT_EQ("Cannot install " + url + ": the widget root is not safe: " +
                realRoot(root) + " is writable by other users (mode 1777)\n"
                "Nothing to clean\n",
            output);
  EXPECT_FALSE(TempDir::exists(root + "widget_calendar"));
  CaptureStdout capture;
  {
    WidgetUnInstaller uninstaller("clock");
    EXPECT_EQ(-1, uninstaller.run());
  }
  EXPECT_EQ("Refusing to remove widget clock: the widget root is not safe: " +
                root + " is writable by other users (mode 1777)\n"
                "Nothing to clean\n",
            capture.text());
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_clock"));
  ASSERT_EQ(0, chmod(root.c_str(), 0755));
}

// Runs one removal of name; its status, and its whole output in *output.
int uninstall(const std::string& name, std::string* output) {
  CaptureStdout capture;
  int status;
  {
    WidgetUnInstaller uninstaller(name);
    status = uninstaller.run();
  }
  *output = capture.text();
  return status;
}

TEST_F(InstallLockTest, RemovalWithALockFileItCannotTrustRemovesNothing) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  const std::string lock = root + ".widget_clock.lock";
  TempDir::writeFile(lock, "");
  ASSERT_EQ(0, chmod(lock.c_str(), 0620));
  std::string output;
  refusal::begin();
  EXPECT_EQ(-1, uninstall("clock", &output));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_UNTRUSTED, refusal::code());
  EXPECT_EQ("Refusing to remove widget clock: the lock file is not safe: " +
                realRoot(root) +
                ".widget_clock.lock is writable by other users (mode 0620)\n"
                "Nothing to clean\n",
            output);
  EXPECT_EQ("<html></html>", TempDir::readFile(root + "widget_clock/index.html"));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets WHERE name='clock'"));

  // A link in its place is not followed, nor is the widget removed.
  ASSERT_EQ(0, unlink(lock.c_str()));
  TempDir::writeFile(dir.file("precious"), "precious");
  ASSERT_EQ(0, symlink(dir.file("precious").c_str(), lock.c_str()));
  EXPECT_EQ(-1, uninstall("clock", &output));
  EXPECT_NE(std::string::npos,
            output.find("Refusing to remove widget clock: the lock file is not "
                        "safe: " + realRoot(root) + ".widget_clock.lock is a link"))
      << output;
  EXPECT_EQ("precious", TempDir::readFile(dir.file("precious")));
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_clock"));

  ASSERT_EQ(0, unlink(lock.c_str()));
  EXPECT_EQ(1, uninstall("clock", &output)) << output;
  EXPECT_TRUE(nothingLeft());
}

TEST_F(InstallLockTest, TmpFolderOthersCanWriteRefusesTheInstallation) {
  ASSERT_EQ(0, chmod((root + "tmp").c_str(), 0777));
  const std::string url = clockPackage("clock.wgt");
  std::string output;
  EXPECT_EQ(3, install(url, &output));
  EXPECT_EQ("Cannot install " + url + ": the download folder is not safe: " +
                root + "tmp/ is writable by other users (mode 0777)\n"
                "Nothing to clean\n",
            output);
  EXPECT_TRUE(nothingLeft());
  ASSERT_EQ(0, chmod((root + "tmp").c_str(), 0755));
}

TEST_F(InstallLockTest, RootReachedThroughAnotherUsersLinkIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a link away needs root";
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  const std::string link = dir.file("theirs");
  ASSERT_EQ(0, symlink(root.c_str(), link.c_str()));
  ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
  ScopedEnv linked("WIDGET_PATH", link + "/");
  const std::string url = clockPackage("calendar.wgt");
  std::string output;
  EXPECT_EQ(3, install(url, &output));
  EXPECT_EQ("Cannot install " + url + ": the widget root is not safe: " + link +
                " is a link that belongs to another user (uid 65534)\n"
                "Nothing to clean\n",
            output);
  EXPECT_EQ(-1, uninstall("clock", &output));
  EXPECT_EQ("Refusing to remove widget clock: the widget root is not safe: " +
                link + " is a link that belongs to another user (uid 65534)\n"
                "Nothing to clean\n",
            output);
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(InstallLockTest, RegistryOrJournalOthersCanWriteIsNeverOpened) {
  ASSERT_EQ(0, install(clockPackage("clock.wgt")));
  const std::string db = conf + "widget.db";
  const std::string before = TempDir::readFile(db);
  for (const std::string& planted :
       {db, conf + "widget.db-journal", conf + "widget.db-wal"}) {
    if (planted != db) TempDir::writeFile(planted, "planted");
    ASSERT_EQ(0, chmod(planted.c_str(), 0666));
    const std::string url = clockPackage("calendar.wgt");
    std::string output;
    EXPECT_EQ(3, install(url, &output));
    EXPECT_EQ("Refusing the widget registry: " + planted +
                  " is writable by other users (mode 0666)\nNothing to clean\n",
              output);
    EXPECT_FALSE(TempDir::exists(root + "widget_calendar"));
    if (planted != db) {
      EXPECT_EQ("planted", TempDir::readFile(planted));
      ASSERT_EQ(0, unlink(planted.c_str()));
    } else {
      ASSERT_EQ(0, chmod(db.c_str(), 0644));
    }
    EXPECT_EQ(before, TempDir::readFile(db));
  }
}

}  // namespace
