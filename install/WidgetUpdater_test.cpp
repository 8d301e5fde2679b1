// SPDX-License-Identifier: Apache-2.0
#include "install/WidgetUpdater.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/ConfigXml.h"
#include "testing/HttpServer.h"
#include "testing/ScopedEnv.h"
#include "testing/ScopedTmpfs.h"
#include "testing/SignedPackage.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

// Every file below path, by its name relative to path, with its kind and
// contents: two equal digests are two equal trees.
void digestInto(const std::string& path, const std::string& relative,
                std::string* digest) {
  DIR* dir = opendir(path.c_str());
  if (!dir) return;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string full = path + "/" + name;
    struct stat status;
    if (lstat(full.c_str(), &status) != 0) continue;
    *digest += relative + name + " " + std::to_string(status.st_mode) + "\n";
    if (S_ISDIR(status.st_mode)) {
      digestInto(full, relative + name + "/", digest);
    } else if (S_ISREG(status.st_mode)) {
      *digest += TempDir::readFile(full) + "\n";
    }
  }
}

std::string treeDigest(const std::string& path) {
  std::string digest;
  digestInto(path, "", &digest);
  return digest;
}

int lastRefusal(std::string* reason = nullptr) {
  const char* text = nullptr;
  const int code = widgetengine_last_refusal(&text);
  if (reason) *reason = text ? text : "";
  return code;
}

// The engine's lines go nowhere in the children of these tests: a child
// writes a few hundred of them per update, and none of them is looked at.
void quiet() { widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_QUIET); }

class WidgetUpdaterTest : public WidgetSandbox {
 protected:
  WidgetUpdaterTest() : storage(root + "widget_clock/") {}

  // A clock of the given version: its start page and a file that only this
  // version has, with its French copy (which is what mapResource answers),
  // all saying the version, and filler files enough for an update to take a
  // while.
  std::string clock(const std::string& version, int fillers = 0,
                    const std::string& extra = "") {
    ZipBuilder zip;
    zip.addFile("config.xml",
                configXml("<name>Clock " + version + "</name>" + extra,
                          "version=\"" + version + "\""))
        .addFile("index.html", "<p>" + version + "</p>")
        .addFile("only-" + version + ".txt", version)
        .addFile("locales/fr/only-" + version + ".txt", version);
    for (int i = 0; i < fillers; ++i)
      zip.addFile("fill/" + std::to_string(i) + ".txt",
                  std::string(2000, static_cast<char>('a' + i % 26)) + version);
    return serve(version + "/clock.wgt", zip);
  }

  // A clock of the given version, unpacked in a folder of that name and
  // signed as its author by signer (by no one when signer is null); its
  // address.
  std::string signedClock(const std::string& folder, const std::string& version,
                          const TestSigner* signer) {
    SignedPackage unpacked(dir.file(folder));
    TempDir::writeFile(unpacked.file("config.xml"),
                       configXml("<name>Clock " + version + "</name>",
                                 "version=\"" + version + "\""));
    TempDir::writeFile(unpacked.file("index.html"), "<p>" + version + "</p>");
    TempDir::writeFile(unpacked.file("only-" + version + ".txt"), version);
    EXPECT_EQ(0, mkdir(unpacked.file("locales").c_str(), 0700));
    EXPECT_EQ(0, mkdir(unpacked.file("locales/fr").c_str(), 0700));
    TempDir::writeFile(unpacked.file("locales/fr/only-" + version + ".txt"), version);
    std::vector<std::string> names = {"config.xml", "index.html", "js/app.js",
                                      "only-" + version + ".txt",
                                      "locales/fr/only-" + version + ".txt"};
    if (signer) names.push_back(unpacked.sign(*signer, SignatureMaker::kAuthor));
    ZipBuilder zip;
    for (const std::string& name : names)
      zip.addFile(name, TempDir::readFile(unpacked.file(name)));
    return serve(folder + "/clock.wgt", zip);
  }

  std::string serve(const std::string& path, const ZipBuilder& zip) {
    const std::string file = writePackage(
        "p" + std::to_string(++served_) + ".wgt", zip);
    server.serveFile("/" + path, file);
    return server.url("/" + path);
  }

  // Installs the package at url as a browser would; its launch URL.
  std::string install(const std::string& url) {
    RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
    char* launch = engine->receiveWidget(url.c_str(), nullptr);
    std::string result = launch ? launch : "";
    free(launch);
    return result;
  }

  // What a fresh engine answers about the clock: its version, one of a and
  // b, or "" when it has none. *whole tells whether every lookup answers for
  // that version: the French copy of its own file is there, the other
  // version's is not, the launch URL and the name are the widget's.
  std::string answeredVersion(const std::string& a, const std::string& b,
                              const std::string& launch, bool* whole) {
    RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
    std::unique_ptr<WidgetsData> info(engine->getInfo("clock", nullptr, ""));
    *whole = false;
    if (!info) return "";
    const std::string version = info->getVersion();
    const std::string other = version == a ? b : a;
    char* own = engine->mapResource(("file://" + storage + "only-" + version + ".txt").c_str(), "fr");
    char* others = engine->mapResource(("file://" + storage + "only-" + other + ".txt").c_str(), "fr");
    *whole = (version == a || version == b) && own && !others &&
             engine->isWidget(launch.c_str()) == 1 &&
             info->getLaunchURL() == launch && info->getWidgetName() == "Clock " + version;
    free(own);
    free(others);
    return version;
  }

  // Whether the directory holds exactly the files of that version.
  bool filesAre(const std::string& version, const std::string& other) const {
    return TempDir::readFile(storage + "index.html") == "<p>" + version + "</p>" &&
           TempDir::exists(storage + "locales/fr/only-" + version + ".txt") &&
           !TempDir::exists(storage + "locales/fr/only-" + other + ".txt");
  }

#if defined(WIDGETENGINE_TEST_EMULATED)
  // qemu-user cannot start a thread in a forked copy of a process that has
  // threads (it aborts on an assertion of its own), and these tests update
  // in forked children: under it, every installation unpacks on its calling
  // thread. The kill points are the same; only the second unpacking thread
  // is not there to be killed with it.
  ScopedEnv oneThread_{"WIDGETENGINE_UNPACK_THREADS", "1"};
#endif
  HttpServer server;
  const std::string storage;
  int served_ = 0;
};

TEST_F(WidgetUpdaterTest, NewVersionReplacesFilesAndRowsAndKeepsTheAddresses) {
  const std::string launch = install(clock("1.0"));
  ASSERT_EQ("file://" + storage + "index.html", launch);
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  std::unique_ptr<WidgetsData> before(engine->getInfo("clock", nullptr, ""));
  ASSERT_TRUE(before);
  // The engine that looked before the update must see it at its next look.
  char* old = engine->mapResource(("file://" + storage + "only-1.0.txt").c_str(), "fr");
  EXPECT_TRUE(old);
  free(old);

  const std::string url = clock("2.0", 3, "<name xml:lang=\"fr\">Horloge</name>");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_update_widget("clock", url.c_str()));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, lastRefusal());

  std::unique_ptr<WidgetsData> after(engine->getInfo("clock", nullptr, ""));
  ASSERT_TRUE(after);
  EXPECT_EQ("2.0", after->getVersion());
  EXPECT_EQ(before->getId(), after->getId());
  EXPECT_EQ(launch, after->getLaunchURL());
  EXPECT_EQ(before->getStoragePath(), after->getStoragePath());
  EXPECT_EQ(before->getSourceURL(), after->getSourceURL());
  std::unique_ptr<WidgetsData> french(engine->getInfo("clock", nullptr, "fr"));
  ASSERT_TRUE(french);
  EXPECT_EQ("Horloge", french->getWidgetName());
  EXPECT_EQ(1, engine->isWidget(launch.c_str()));
  char* gone = engine->mapResource(("file://" + storage + "only-1.0.txt").c_str(), "fr");
  char* added = engine->mapResource(("file://" + storage + "only-2.0.txt").c_str(), "fr");
  EXPECT_FALSE(gone);
  EXPECT_TRUE(added);
  free(gone);
  free(added);
  EXPECT_TRUE(filesAre("2.0", "1.0"));
  EXPECT_TRUE(TempDir::exists(storage + "fill/2.txt"));
  const std::string id = std::to_string(after->getId());
  EXPECT_EQ(7, count("SELECT COUNT(*) FROM widgetFiles WHERE widgetID=" + id));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets"));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(WidgetUpdaterTest, RefusedPackagesLeaveTheWidgetAsItWas) {
  widgetengine_set_verify_entries(1);
  const std::string launch = install(clock("1.0"));
  ASSERT_FALSE(launch.empty());
  const std::string tree = treeDigest(storage);

  // Bytes that fail their checksum.
  ZipBuilder damaged;
  damaged.addFile("config.xml", configXml("<name>Clock</name>"), ZipBuilder::kStored)
      .addFile("index.html", "<p>damaged clock</p>", ZipBuilder::kStored);
  const std::string damagedUrl = serve("crc/clock.wgt", damaged);
  {
    const std::string file = packages + "p" + std::to_string(served_) + ".wgt";
    std::string bytes = TempDir::readFile(file);
    bytes[bytes.find("damaged clock") + 3] = 'X';
    TempDir::writeFile(file, bytes);
  }
  ZipBuilder badConfig;
  badConfig.addFile("config.xml", "<widget").addFile("index.html", "<p/>");
  ZipBuilder noConfig;
  noConfig.addFile("index.html", "<p/>");
  ZipBuilder otherStart;
  otherStart.addFile("config.xml", configXml("<content src=\"main.html\"/>"))
      .addFile("main.html", "<p/>");
  ZipBuilder big;
  std::mt19937 random(7);
  std::string noise(1536 * 1024, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  big.addFile("config.xml", configXml("")).addFile("index.html", "<p/>")
      .addFile("noise.bin", noise, ZipBuilder::kStored);
  ZipBuilder watch;
  watch.addFile("config.xml", configXml("<name>Watch</name>")).addFile("index.html", "<p/>");
  server.serve("/missing/clock.wgt", 404, "not here");

  struct Case {
    const char* what;
    std::string name;
    std::string url;
    int code;
  } cases[] = {
      {"damaged entry", "clock", damagedUrl, WIDGETENGINE_REFUSAL_DAMAGED_ENTRY},
      {"config.xml not well-formed", "clock", serve("bad/clock.wgt", badConfig),
       WIDGETENGINE_REFUSAL_INVALID_CONFIG},
      {"no config.xml", "clock", serve("none/clock.wgt", noConfig),
       WIDGETENGINE_REFUSAL_NO_CONFIG},
      {"another start page", "clock", serve("start/clock.wgt", otherStart),
       WIDGETENGINE_REFUSAL_NOT_AN_UPDATE},
      {"too big", "clock", serve("big/clock.wgt", big), WIDGETENGINE_REFUSAL_DOWNLOAD},
      {"another name", "clock", serve("1.1/watch.wgt", watch),
       WIDGETENGINE_REFUSAL_NOT_AN_UPDATE},
      {"not installed", "watch", server.url("/1.2/watch.wgt"),
       WIDGETENGINE_REFUSAL_NOT_INSTALLED},
      {"no package", "clock", server.url("/missing/clock.wgt"),
       WIDGETENGINE_REFUSAL_HTTP_STATUS},
  };
  ScopedEnv limit("WIDGETENGINE_MAX_PACKAGE_MB", "1");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int code = widgetengine_update_widget(c.name.c_str(), c.url.c_str());
    std::string reason;
    EXPECT_EQ(c.code, code);
    EXPECT_EQ(code, lastRefusal(&reason));
    EXPECT_FALSE(reason.empty());
    EXPECT_EQ(tree, treeDigest(storage));
    bool whole = false;
    EXPECT_EQ("1.0", answeredVersion("1.0", "2.0", launch, &whole));
    EXPECT_TRUE(whole);
    EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
  }
  widgetengine_set_verify_entries(0);
}

TEST_F(WidgetUpdaterTest, AnUpdateComesFromTheInstalledVersionsAuthorOnly) {
  const TestPki& pki = TestPki::get();
  const std::string anchors = dir.file("anchors");
  ASSERT_EQ(0, mkdir(anchors.c_str(), 0700));
  TempDir::writeFile(anchors + "/root.pem", pki.root);
  ASSERT_EQ(0, chmod((anchors + "/root.pem").c_str(), 0600));
  widgetengine_set_trust_anchors(anchors.c_str());
  ASSERT_EQ(0, widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REPORT));
  const std::string launch = install(signedClock("1.0", "1.0", &pki.author));
  ASSERT_FALSE(launch.empty());
  const std::string tree = treeDigest(storage);

  // Whatever the policy now: the installed version's signer decides.
  ASSERT_EQ(0, widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_OFF));
  struct Case {
    const char* what;
    std::string url;
    std::string reason;
  } cases[] = {
      {"another author", signedClock("other", "2.0", &pki.distributor),
       "another-author: the installed version is signed by " + pki.author.subject +
           ", the package by " + pki.distributor.subject},
      {"unsigned", signedClock("unsigned", "2.0", nullptr),
       "another-author: the installed version is signed by " + pki.author.subject +
           ", the package has no valid author signature"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(WIDGETENGINE_REFUSAL_SIGNATURE,
              widgetengine_update_widget("clock", c.url.c_str()));
    std::string reason;
    EXPECT_EQ(WIDGETENGINE_REFUSAL_SIGNATURE, lastRefusal(&reason));
    EXPECT_EQ(c.reason, reason);
    EXPECT_EQ(tree, treeDigest(storage));
    bool whole = false;
    EXPECT_EQ("1.0", answeredVersion("1.0", "2.0", launch, &whole));
    EXPECT_TRUE(whole);
    EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
  }

  const std::string same = signedClock("same", "2.0", &pki.author);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_update_widget("clock", same.c_str()));
  bool whole = false;
  EXPECT_EQ("2.0", answeredVersion("1.0", "2.0", launch, &whole));
  EXPECT_TRUE(whole);
  // The record is the new package's, checked as report checks.
  std::unique_ptr<char, decltype(&free)> info(widgetengine_signature_info("clock"), &free);
  ASSERT_TRUE(info);
  const nlohmann::json record = nlohmann::json::parse(info.get());
  EXPECT_EQ("report", record["policy"]);
  EXPECT_EQ(true, record["valid"]);
  EXPECT_EQ(pki.author.subject, record["author"]["subject"]);
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM widgetSignatures"));

  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_DEFAULT);
  widgetengine_set_trust_anchors(nullptr);
}

TEST_F(WidgetUpdaterTest, AnUnsignedWidgetTakesAnyUpdateAndForgetsNoRecord) {
  const std::string launch = install(clock("1.0"));
  ASSERT_FALSE(launch.empty());
  const std::string url = signedClock("any", "2.0", &TestPki::get().distributor);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_update_widget("clock", url.c_str()));
  bool whole = false;
  EXPECT_EQ("2.0", answeredVersion("1.0", "2.0", launch, &whole));
  EXPECT_TRUE(whole);
  // The policy is off: nothing was checked, and the registry has no table.
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM sqlite_master WHERE name='widgetSignatures'"));
}

TEST_F(WidgetUpdaterTest, ACutDownloadIsTakenUpWhereItStopped) {
  const std::string launch = install(clock("1.0"));
  ASSERT_FALSE(launch.empty());
  clock("2.0", 60);
  HttpServer::Resource package;
  package.body = TempDir::readFile(packages + "p" + std::to_string(served_) + ".wgt");
  package.etag = "\"2.0\"";
  package.contentType = "application/widget";
  package.cutFirstAt = package.body.size() / 2;
  server.serveResource("/cut/clock.wgt", package);

  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE,
            widgetengine_update_widget("clock", server.url("/cut/clock.wgt").c_str()));
  EXPECT_EQ(1, server.rangeRequests("/cut/clock.wgt"));
  EXPECT_NE(std::string::npos,
            server.lastRequest("/cut/clock.wgt")
                .find("Range: bytes=" + std::to_string(package.body.size() / 2) + "-\r\n"));
  bool whole = false;
  EXPECT_EQ("2.0", answeredVersion("1.0", "2.0", launch, &whole));
  EXPECT_TRUE(whole);
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(WidgetUpdaterTest, NullArgumentsAreRefused) {
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BAD_ARGUMENT, widgetengine_update_widget(nullptr, "x"));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BAD_ARGUMENT, widgetengine_update_widget("clock", nullptr));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BAD_ARGUMENT, lastRefusal());
}

// The point at which a killed update's child kills itself, chosen before
// the fork.
int gKillStep = -1;
uint64_t gKillEntry = 0;

void killAtStep(WidgetUpdater::Step step) {
  if (static_cast<int>(step) == gKillStep) raise(SIGKILL);
}

void killAtEntry(int stage, uint64_t done, uint64_t, void*) {
  if (stage == WIDGETENGINE_PROGRESS_UNPACK && done >= gKillEntry) raise(SIGKILL);
}

TEST_F(WidgetUpdaterTest, KilledUpdatesLeaveTheOldOrTheNewWidgetWhole) {
  const std::string urls[2] = {clock("1.0", 40), clock("2.0", 40)};
  const std::string versions[2] = {"1.0", "2.0"};
  const std::string launch = install(urls[0]);
  ASSERT_FALSE(launch.empty());
  // One whole update, to spread the kills of the last kind over its span.
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(0, widgetengine_update_widget("clock", urls[1].c_str()));
  const long span = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - start).count();
  int current = 1;

  std::mt19937 random(2611);
  const int rounds = 210;
  std::map<std::string, int> seen;
  int mixed = 0;
  int dirty = 0;
  int crashed = 0;
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int target = 1 - current;
    const int kind = round % 3;
    gKillStep = kind == 0 ? static_cast<int>(random() % (WidgetUpdater::kOldRemoved + 1)) : -1;
    gKillEntry = kind == 1 ? 1 + random() % 42 : 0;
    ChildProcess child;
    child.start([&] {
      quiet();
      if (gKillStep >= 0) WidgetUpdater::setStepHook(killAtStep);
      if (gKillEntry > 0) widgetengine_set_progress_callback(killAtEntry, nullptr);
      return widgetengine_update_widget("clock", urls[target].c_str());
    });
    if (kind == 2) {
      // Not a wait for anything: the kill points spread over an update.
      std::this_thread::sleep_for(std::chrono::microseconds(
          static_cast<long>(random() % static_cast<unsigned long>(span + 1))));
      child.kill(SIGKILL);
    }
    child.wait();
    const int status = child.status();
    if (child.hung() || (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL) ||
        (WIFEXITED(status) && WEXITSTATUS(status) != 0)) {
      ++crashed;
    }
    seen[WIFSIGNALED(status) ? "killed" : "finished"]++;

    // Before anything cleans up: every lookup of a fresh engine answers for
    // one version, entirely.
    bool whole = false;
    const std::string answered = answeredVersion(versions[0], versions[1], launch, &whole);
    if (!whole) {
      ++mixed;
      ADD_FAILURE() << "the lookups answer for version " << answered << " in part";
      break;
    }
    seen[answered == versions[current] ? "old" : "new"]++;

    // The next engine call that takes the name finishes or undoes what the
    // killed one left: an installation from the installed address changes
    // nothing else.
    EXPECT_EQ(launch, install(urls[0]));
    const std::string other = answered == versions[0] ? versions[1] : versions[0];
    if (!filesAre(answered, other) || !rootHoldsOnly({"tmp", "widget_clock"})) {
      ++dirty;
      ADD_FAILURE() << "left: " << ::testing::PrintToString(TempDir::listDirectory(root));
      break;
    }
    answeredVersion(versions[0], versions[1], launch, &whole);
    EXPECT_TRUE(whole);
    current = answered == versions[0] ? 0 : 1;
  }
  std::printf("update kills: rounds=%d killed=%d finished=%d old=%d new=%d "
              "mixed=%d dirty=%d crashed=%d\n",
              rounds, seen["killed"], seen["finished"], seen["old"], seen["new"],
              mixed, dirty, crashed);
  EXPECT_EQ(rounds, seen["old"] + seen["new"]);
  EXPECT_EQ(rounds, seen["killed"] + seen["finished"]);
  EXPECT_EQ(0, mixed);
  EXPECT_EQ(0, dirty);
  EXPECT_EQ(0, crashed);
  // Some kills came before the commit and some after it.
  EXPECT_GT(seen["old"], 0);
  EXPECT_GT(seen["new"], 0);
}

TEST_F(WidgetUpdaterTest, AnUpdateKilledAtEachStepIsSettledByEveryKindOfNextCall) {
  const std::string v1 = clock("1.0", 5);
  const std::string v2 = clock("2.0", 5);
  ZipBuilder otherZip;
  otherZip.addFile("config.xml", configXml("<name>Other</name>")).addFile("index.html", "<p/>");
  const std::string other = serve("o/other.wgt", otherZip);
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  for (int step = WidgetUpdater::kStaged; step <= WidgetUpdater::kOldRemoved; ++step) {
    for (const std::string next : {"install", "remove", "update"}) {
      SCOPED_TRACE("killed at step " + std::to_string(step) + ", then " + next);
      std::unique_ptr<WidgetsData> info(engine->getInfo("clock", nullptr, ""));
      if (!info) {
        ASSERT_FALSE(install(v1).empty());
      } else if (info->getVersion() != "1.0") {
        ASSERT_EQ(0, widgetengine_update_widget("clock", v1.c_str()));
      }
      const std::string launch = "file://" + storage + "index.html";
      gKillStep = step;
      ChildProcess child;
      child.start([&] {
        quiet();
        WidgetUpdater::setStepHook(killAtStep);
        return widgetengine_update_widget("clock", v2.c_str());
      });
      child.wait();
      ASSERT_TRUE(WIFSIGNALED(child.status()));
      const std::string expected = step < WidgetUpdater::kCommitted ? "1.0" : "2.0";
      bool whole = false;
      EXPECT_EQ(expected, answeredVersion("1.0", "2.0", launch, &whole));
      EXPECT_TRUE(whole);
      if (next == "install") {
        EXPECT_FALSE(install(other).empty());
        EXPECT_TRUE(filesAre(expected, expected == "1.0" ? "2.0" : "1.0"));
        EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock", "widget_other"}));
        EXPECT_EQ(1, engine->deleteWidget("other", nullptr));
      } else if (next == "remove") {
        EXPECT_EQ(1, engine->deleteWidget("clock", nullptr));
        EXPECT_TRUE(nothingLeft());
      } else {
        EXPECT_EQ(0, widgetengine_update_widget("clock", v2.c_str()));
        EXPECT_EQ("2.0", answeredVersion("1.0", "2.0", launch, &whole));
        EXPECT_TRUE(whole);
        EXPECT_TRUE(filesAre("2.0", "1.0"));
        EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
      }
    }
  }
}

TEST_F(WidgetUpdaterTest, FullDiskKeepsTheOldWidget) {
  ScopedTmpfs full(root, "size=1m,mode=0755");
  if (!full.mounted()) {
    std::printf("update full-disk skipped: %s\n", full.whyNot().c_str());
    GTEST_SKIP() << full.whyNot();
  }
  ASSERT_EQ(0, mkdir((root + "tmp").c_str(), 0755));
  ScopedEnv reserve("WIDGETENGINE_DOWNLOAD_RESERVE_MB", "0");
  const std::string launch = install(clock("1.0"));
  ASSERT_FALSE(launch.empty());
  const std::string tree = treeDigest(storage);

  // Downloaded, the package fits; unpacked beside it, it cannot.
  std::mt19937 random(11);
  std::string noise(600 * 1024, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  ZipBuilder big;
  big.addFile("config.xml", configXml("<name>Clock 2.0</name>", "version=\"2.0\""))
      .addFile("index.html", "<p>2.0</p>")
      .addFile("noise.bin", noise, ZipBuilder::kStored);
  const std::string url = serve("2.0/clock.wgt", big);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_SPACE, widgetengine_update_widget("clock", url.c_str()));
  EXPECT_EQ(tree, treeDigest(storage));
  bool whole = false;
  EXPECT_EQ("1.0", answeredVersion("1.0", "2.0", launch, &whole));
  EXPECT_TRUE(whole);
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(WidgetUpdaterTest, LookupsInOtherProcessesNeverSeeAMixedWidget) {
  const int updates = 12;
  std::vector<std::string> urls;
  for (int v = 1; v <= updates; ++v) urls.push_back(clock(std::to_string(v), 10));
  const std::string launch = install(urls[0]);
  ASSERT_FALSE(launch.empty());
  const std::string stop = dir.path() + "/stop";
  const std::string storagePath = storage;

  std::vector<std::unique_ptr<ChildProcess>> readers;
  for (int r = 0; r < 2; ++r) {
    readers.emplace_back(new ChildProcess);
    readers.back()->start([&] {
      quiet();
      RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
      long looks = 0;
      long wrong = 0;
      while (!TempDir::exists(stop) || looks < 100) {
        std::unique_ptr<WidgetsData> first(engine->getInfo("clock", nullptr, ""));
        char* own = first ? engine->mapResource(
                                ("file://" + storagePath + "only-" + first->getVersion() + ".txt").c_str(), "fr")
                          : nullptr;
        std::unique_ptr<WidgetsData> second(engine->getInfo("clock", nullptr, ""));
        // Versions only rise: one seen twice around a lookup was the
        // version of that lookup too.
        if (!first || !second || engine->isWidget(launch.c_str()) != 1 ||
            (first->getVersion() == second->getVersion() && !own) ||
            first->getWidgetName() != "Clock " + first->getVersion()) {
          ++wrong;
          std::printf("first=%s second=%s own=%d widget=%d name=%s\n",
                      first ? first->getVersion().c_str() : "-",
                      second ? second->getVersion().c_str() : "-", own != nullptr,
                      engine->isWidget(launch.c_str()),
                      first ? first->getWidgetName().c_str() : "-");
        }
        free(own);
        ++looks;
      }
      std::printf("looks=%ld wrong=%ld\n", looks, wrong);
      return wrong == 0 ? 0 : 1;
    });
  }
  // A second updater races every update with one of the same version.
  for (int v = 1; v < updates; ++v) {
    ChildProcess rival;
    rival.start([&] {
      quiet();
      return widgetengine_update_widget("clock", urls[v].c_str());
    });
    EXPECT_EQ(0, widgetengine_update_widget("clock", urls[v].c_str()));
    rival.wait();
    EXPECT_TRUE(rival.exitedWith(0)) << rival.out();
  }
  TempDir::writeFile(stop, "");
  for (auto& reader : readers) {
    reader->wait();
    EXPECT_TRUE(reader->exitedWith(0)) << reader->out();
    std::printf("update readers: %s", reader->out().c_str());
  }
  bool whole = false;
  EXPECT_EQ(std::to_string(updates), answeredVersion(std::to_string(updates), "1", launch, &whole));
  EXPECT_TRUE(whole);
  EXPECT_TRUE(filesAre(std::to_string(updates), "1"));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

}  // namespace
