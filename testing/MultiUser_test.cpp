// SPDX-License-Identifier: Apache-2.0
// Two real local users on one device: "you", who installs and removes
// widgets with widgetctl, and "them", who prepares the ground beforehand.
// Each test runs widgetctl as you (setpriv, as root would start a program as
// a user) and proves that nothing they made or can write is acted on: each
// ends in a refusal that says why, with your files intact. Needs root.

#include <grp.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/ConfigXml.h"
#include "testing/TempDir.h"
#include "testing/ZipBuilder.h"

namespace {

const char kWidgetctl[] = WIDGETENGINE_BINARY_DIR "/widgetctl";
const char kSetpriv[] = "/usr/bin/setpriv";
constexpr uid_t kYou = 64010;
constexpr uid_t kThem = 64011;

struct Result {
  int status;
  std::string out;
  std::string err;
};

class MultiUserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "acting as two users needs root";
    if (access(kSetpriv, X_OK) != 0) GTEST_SKIP() << "no " << kSetpriv;
    if (access(kWidgetctl, X_OK) != 0) GTEST_SKIP() << "widgetctl is not built";
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    you = dir.path() + "/you/";
    them = dir.path() + "/them/";
    shared = dir.path() + "/shared/";
    makeDirectory(you, kYou, 0700);
    makeDirectory(them, kThem, 0755);
    makeDirectory(you + "conf/", kYou, 0755);
    makeDirectory(you + "widgets/", kYou, 0755);
    makeDirectory(you + "widgets/tmp/", kYou, 0755);
    makeDirectory(you + "tmp/", kYou, 0700);
    // The package everyone can read.
    makeDirectory(dir.path() + "/packages/", 0, 0755);
    ZipBuilder zip;
    zip.addFile("config.xml", configXml("<name>Clock</name>"))
        .addFile("index.html", "<p>yours</p>");
    ASSERT_TRUE(zip.write(dir.path() + "/packages/clock.wgt"));
    url = "file://" + dir.path() + "/packages/clock.wgt";
  }

  static void makeDirectory(const std::string& path, uid_t owner, mode_t mode) {
    ASSERT_EQ(0, mkdir(path.c_str(), 0700)) << path;
    ASSERT_EQ(0, chown(path.c_str(), owner, owner)) << path;
    ASSERT_EQ(0, chmod(path.c_str(), mode)) << path;
  }

  // Runs widgetctl as user, with the given registry and widget root.
  Result widgetctl(uid_t user, const std::vector<std::string>& args,
                   const std::string& conf, const std::string& root) {
    ChildProcess child;
    child.setEnv("YRA_DATA_PATH", conf);
    child.setEnv("WIDGET_PATH", root);
    child.setEnv("TMPDIR", user == kYou ? you : them);
    child.setEnv("HOME", user == kYou ? you : them);
    const std::string id = std::to_string(user);
    std::vector<std::string> argv = {kSetpriv, "--reuid=" + id, "--regid=" + id,
                                     "--clear-groups", kWidgetctl};
    argv.insert(argv.end(), args.begin(), args.end());
    child.start(argv);
    child.wait();
    Result result;
    result.status = child.crashed() || child.hung() ? -1 : child.shellStatus();
    result.out = child.out();
    result.err = child.err();
    return result;
  }

  // Runs body as user in a child process; true when it returned true.
  static bool as(uid_t user, const std::function<bool()>& body) {
    ChildProcess child;
    child.start([&] {
      if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 ||
          setresuid(user, user, user) != 0) {
        return 77;
      }
      umask(0);
      return body() ? 0 : 1;
    });
    child.wait();
    return child.exitedWith(0);
  }

  static bool write(const std::string& path, const std::string& text,
                    mode_t mode) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode);
    if (fd < 0) return false;
    const bool ok =
        ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && ok;
  }

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  TempDir dir;
  std::string you;
  std::string them;
  std::string shared;
  std::string url;
};

TEST_F(MultiUserTest, RegistryTheyMadeFirstAnswersNothingForYou) {
  // The registry directory of old packages: everyone's, sticky.
  makeDirectory(shared, 0, 01777);
  // They install the very address you are about to, into a registry and
  // root of theirs, and put that registry where yours is looked for.
  ASSERT_TRUE(as(kThem, [&] {
    return mkdir((them + "widgets").c_str(), 0755) == 0 &&
           mkdir((them + "widgets/tmp").c_str(), 0755) == 0 &&
           mkdir((them + "conf").c_str(), 0755) == 0;
  }));
  const Result theirs =
      widgetctl(kThem, {"install", url}, them + "conf/", them + "widgets/");
  ASSERT_EQ(0, theirs.status) << theirs.out << theirs.err;
  ASSERT_TRUE(as(kThem, [&] {
    return write(shared + "widget.db", TempDir::readFile(them + "conf/widget.db"), 0666);
  }));
  const std::string planted = TempDir::readFile(shared + "widget.db");

  Result result = widgetctl(kYou, {"install", url}, shared, you + "widgets/");
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, "Refusing the widget registry: " + shared +
                                       " is writable by other users (mode 1777)"))
      << result.out;
  EXPECT_FALSE(contains(result.out, "already installed"));

  // Even once the directory is closed, the file they left is not yours.
  ASSERT_EQ(0, chmod(shared.c_str(), 0755));
  ASSERT_EQ(0, chown(shared.c_str(), kYou, kYou));
  result = widgetctl(kYou, {"install", url}, shared, you + "widgets/");
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, "Refusing the widget registry: " + shared +
                                       "widget.db belongs to another user (uid 64011)"))
      << result.out;
  EXPECT_EQ(planted, TempDir::readFile(shared + "widget.db"));
  EXPECT_EQ(std::vector<std::string>({"tmp"}),
            TempDir::listDirectory(you + "widgets/"));
}

TEST_F(MultiUserTest, JournalTheyPlantedIsNeverRolledBackIntoYourRegistry) {
  ASSERT_EQ(0, widgetctl(kYou, {"install", url}, you + "conf/", you + "widgets/").status);
  const std::string db = you + "conf/widget.db";
  const std::string before = TempDir::readFile(db);
  // A moment when your registry's directory was open to others.
  ASSERT_EQ(0, chmod((you + "conf").c_str(), 0777));
  ASSERT_EQ(0, chmod(you.c_str(), 0755));
  ASSERT_TRUE(as(kThem, [&] {
    return write(db + "-journal", std::string(4096, '\xd9'), 0644);
  }));
  ASSERT_EQ(0, chmod((you + "conf").c_str(), 0755));

  Result result = widgetctl(kYou, {"list"}, you + "conf/", you + "widgets/");
  EXPECT_NE(0, result.status);
  EXPECT_TRUE(contains(result.out + result.err,
                       db + "-journal belongs to another user (uid 64011)"))
      << result.out << result.err;
  result = widgetctl(kYou, {"doctor"}, you + "conf/", you + "widgets/");
  EXPECT_NE(0, result.status);
  EXPECT_FALSE(contains(result.out, "registry and disk agree"));
  EXPECT_EQ(before, TempDir::readFile(db));
  EXPECT_TRUE(TempDir::exists(db + "-journal"));
}

TEST_F(MultiUserTest, WidgetRootTheyMadeFirstIsRefused) {
  const std::string root = shared;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 01777));
  ASSERT_TRUE(as(kThem, [&] { return mkdir(root.c_str(), 0755) == 0; }));
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  Result result = widgetctl(kYou, {"install", url}, you + "conf/", root);
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, "the widget root is not safe: " + root +
                                       " belongs to another user (uid 64011)"))
      << result.out;
  EXPECT_TRUE(TempDir::listDirectory(root).empty());
  // Open to everyone, it is refused just the same.
  ASSERT_EQ(0, chown(root.c_str(), kYou, kYou));
  ASSERT_EQ(0, chmod(root.c_str(), 01777));
  result = widgetctl(kYou, {"install", url}, you + "conf/", root);
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, " is writable by other users (mode 1777)"))
      << result.out;
  EXPECT_TRUE(TempDir::listDirectory(root).empty());
}

TEST_F(MultiUserTest, LockTheyPlantedNeitherDeletesYourFilesNorHoldsOtherNames) {
  const std::string root = you + "widgets/";
  const std::string yours = root + "tmp/fileAb3dE9";
  ASSERT_TRUE(as(kYou, [&] { return write(yours, "yours", 0600); }));
  // Left while your root was open to them.
  ASSERT_EQ(0, chmod(you.c_str(), 0755));
  ASSERT_EQ(0, chmod(root.c_str(), 0777));
  ASSERT_TRUE(as(kThem, [&] {
    return write(root + ".widget_clock.lock",
                 "package " + yours + "\nstorage " + root + "widget_clock/\n",
                 0644) &&
           write(root + ".widget_other.lock",
                 "package " + yours + "\nstorage " + root + "widget_other/\n",
                 0644);
  }));
  ASSERT_EQ(0, chmod(root.c_str(), 0755));

  Result result = widgetctl(kYou, {"install", url}, you + "conf/", root);
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, "the lock file is not safe: " + root +
                                       ".widget_clock.lock belongs to another "
                                       "user (uid 64011)"))
      << result.out;
  EXPECT_EQ("yours", TempDir::readFile(yours));
  // Another name installs, and its sweep leaves their locks alone too.
  ASSERT_EQ(0, link((dir.path() + "/packages/clock.wgt").c_str(),
                    (dir.path() + "/packages/calendar.wgt").c_str()));
  result = widgetctl(kYou, {"install", "file://" + dir.path() + "/packages/calendar.wgt"},
                     you + "conf/", root);
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_EQ("yours", TempDir::readFile(yours));
  EXPECT_TRUE(TempDir::exists(root + ".widget_other.lock"));
}

TEST_F(MultiUserTest, RemovalNeverLeavesTheWidgetRoot) {
  const std::string root = you + "widgets/";
  ASSERT_EQ(0, widgetctl(kYou, {"install", url}, you + "conf/", root).status);
  // A folder of yours that happens to carry a widget directory's name, and
  // a row that points the widget there.
  const std::string elsewhere = you + "documents/";
  makeDirectory(elsewhere, kYou, 0755);
  makeDirectory(elsewhere + "widget_clock/", kYou, 0755);
  ASSERT_TRUE(as(kYou, [&] {
    return write(elsewhere + "widget_clock/thesis.odt", "years of work", 0644);
  }));
  ASSERT_TRUE(as(kYou, [&] {
    sqlite3* db = nullptr;
    const std::string sql = "UPDATE Widgets SET storagePath='" + elsewhere +
                            "widget_clock/' WHERE name='clock'";
    const bool ok = sqlite3_open((you + "conf/widget.db").c_str(), &db) == SQLITE_OK &&
                    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
  }));
  Result result = widgetctl(kYou, {"remove", "clock"}, you + "conf/", root);
  EXPECT_NE(0, result.status);
  EXPECT_TRUE(contains(result.out, "Refusing to delete " + elsewhere +
                                       "widget_clock/: it is not inside the "
                                       "widget root " + root))
      << result.out;
  EXPECT_FALSE(contains(result.out, "Delete OK"));
  EXPECT_EQ("years of work", TempDir::readFile(elsewhere + "widget_clock/thesis.odt"));
}

TEST_F(MultiUserTest, LinkTheyPlantedAtTheRootsNameLeadsNowhere) {
  // Your widgets, in the root you use.
  const std::string yours = you + "widgets/";
  ASSERT_EQ(0, widgetctl(kYou, {"install", url}, you + "conf/", yours).status);
  const std::vector<std::string> before = TempDir::listDirectory(yours);
  // The built-in root lives in a folder everyone can add names to, as /tmp.
  // They take its name first, with a link to your other root.
  makeDirectory(shared, 0, 01777);
  const std::string link = shared + "widgetEngine";
  ASSERT_TRUE(as(kThem, [&] { return symlink(yours.c_str(), link.c_str()) == 0; }));
  makeDirectory(you + "other-conf/", kYou, 0755);
  const std::string reason =
      "the widget root is not safe: " + link +
      " is a link that belongs to another user (uid 64011)";

  ASSERT_EQ(0, ::link((dir.path() + "/packages/clock.wgt").c_str(),
                     (dir.path() + "/packages/calendar.wgt").c_str()));
  Result result =
      widgetctl(kYou, {"install", "file://" + dir.path() + "/packages/calendar.wgt"},
                you + "other-conf/", link + "/");
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, reason)) << result.out;

  // What is in your other root is no orphan of this registry: nothing is
  // removed through the link.
  result = widgetctl(kYou, {"doctor", "--repair", "--remove-orphans"},
                     you + "other-conf/", link + "/");
  EXPECT_NE(0, result.status);
  EXPECT_TRUE(contains(result.out + result.err, reason)) << result.out << result.err;

  result = widgetctl(kYou, {"remove", "clock"}, you + "conf/", link + "/");
  EXPECT_NE(0, result.status);
  EXPECT_TRUE(contains(result.out, "Refusing to remove widget clock: " + reason))
      << result.out;

  EXPECT_EQ(before, TempDir::listDirectory(yours));
  EXPECT_EQ("<p>yours</p>", TempDir::readFile(yours + "widget_clock/index.html"));
}

TEST_F(MultiUserTest, TmpTheyLinkedOrMadeInYourRootIsRefused) {
  const std::string root = you + "widgets/";
  makeDirectory(them + "stash/", kThem, 0777);
  ASSERT_EQ(0, rmdir((root + "tmp").c_str()));
  // Left while your root was open to them.
  ASSERT_EQ(0, chmod(you.c_str(), 0755));
  ASSERT_EQ(0, chmod(root.c_str(), 0777));
  ASSERT_TRUE(as(kThem, [&] {
    return symlink((them + "stash").c_str(), (root + "tmp").c_str()) == 0;
  }));
  ASSERT_EQ(0, chmod(root.c_str(), 0755));

  Result result = widgetctl(kYou, {"install", url}, you + "conf/", root);
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, "Cannot install " + url +
                                       ": the download folder is not safe: " +
                                       root + "tmp is a link that belongs to "
                                       "another user (uid 64011)"))
      << result.out;
  EXPECT_TRUE(TempDir::listDirectory(them + "stash/").empty());

  // A folder of theirs in its place, open to you, is refused just the same.
  ASSERT_EQ(0, unlink((root + "tmp").c_str()));
  makeDirectory(root + "tmp/", kThem, 0777);
  result = widgetctl(kYou, {"install", url}, you + "conf/", root);
  EXPECT_EQ(3, result.status);
  EXPECT_TRUE(contains(result.out, "the download folder is not safe: " + root +
                                       "tmp/ belongs to another user (uid 64011)"))
      << result.out;
  EXPECT_TRUE(TempDir::listDirectory(root + "tmp/").empty());
  EXPECT_EQ(std::vector<std::string>({"tmp"}), TempDir::listDirectory(root));
}

TEST_F(MultiUserTest, RemovalWithALockYouCannotTrustIsRefused) {
  const std::string root = you + "widgets/";
  ASSERT_EQ(0, widgetctl(kYou, {"install", url}, you + "conf/", root).status);
  const std::string lock = root + ".widget_clock.lock";
  const std::string precious = you + "precious.txt";
  ASSERT_TRUE(as(kYou, [&] { return write(precious, "yours", 0600); }));
  const auto removalRefused = [&](const std::string& why) {
    const Result result = widgetctl(kYou, {"remove", "clock"}, you + "conf/", root);
    EXPECT_NE(0, result.status);
    EXPECT_TRUE(contains(result.out, "Refusing to remove widget clock: the lock "
                                     "file is not safe: " + lock + why))
        << result.out;
    EXPECT_FALSE(contains(result.out, "Delete OK"));
    EXPECT_EQ("<p>yours</p>", TempDir::readFile(root + "widget_clock/index.html"));
    EXPECT_TRUE(contains(
        widgetctl(kYou, {"list"}, you + "conf/", root).out, "clock"));
  };

  // Theirs, left while your root was open to them; then a link of theirs.
  ASSERT_EQ(0, chmod(you.c_str(), 0755));
  ASSERT_EQ(0, chmod(root.c_str(), 0777));
  ASSERT_TRUE(as(kThem, [&] { return write(lock, "", 0644); }));
  ASSERT_EQ(0, chmod(root.c_str(), 0755));
  removalRefused(" belongs to another user (uid 64011)");

  ASSERT_EQ(0, unlink(lock.c_str()));
  ASSERT_EQ(0, chmod(root.c_str(), 0777));
  ASSERT_TRUE(as(kThem, [&] { return symlink(precious.c_str(), lock.c_str()) == 0; }));
  ASSERT_EQ(0, chmod(root.c_str(), 0755));
  removalRefused(" is a link");
  EXPECT_EQ("yours", TempDir::readFile(precious));

  // Yours, but open to your group.
  ASSERT_EQ(0, unlink(lock.c_str()));
  ASSERT_TRUE(as(kYou, [&] { return write(lock, "", 0660); }));
  removalRefused(" is writable by other users (mode 0660)");

  // Once the lock is yours alone the widget goes, and the lock with it.
  ASSERT_EQ(0, chmod(lock.c_str(), 0600));
  const Result result = widgetctl(kYou, {"remove", "clock"}, you + "conf/", root);
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_EQ(std::vector<std::string>({"tmp"}), TempDir::listDirectory(root));
}

TEST_F(MultiUserTest, OrphanWhoseLockTheyOwnIsLeftWhereItIs) {
  const std::string root = you + "widgets/";
  makeDirectory(root + "widget_old/", kYou, 0755);
  ASSERT_TRUE(as(kYou, [&] { return write(root + "widget_old/notes.txt", "old", 0644); }));
  ASSERT_EQ(0, chmod(you.c_str(), 0755));
  ASSERT_EQ(0, chmod(root.c_str(), 0777));
  ASSERT_TRUE(as(kThem, [&] { return write(root + ".widget_old.lock", "", 0644); }));
  ASSERT_EQ(0, chmod(root.c_str(), 0755));

  Result result = widgetctl(kYou, {"doctor", "--repair", "--remove-orphans"},
                            you + "conf/", root);
  EXPECT_NE(0, result.status);
  EXPECT_TRUE(contains(result.out, "orphan-directory: " + root + "widget_old/\n"))
      << result.out;
  EXPECT_TRUE(contains(result.out, "; not removed: the lock file is not safe: " +
                                       root + ".widget_old.lock belongs to "
                                       "another user (uid 64011)"))
      << result.out;
  EXPECT_EQ("old", TempDir::readFile(root + "widget_old/notes.txt"));

  // Without their lock it is an orphan like any other, removed with no
  // lock file left behind.
  ASSERT_EQ(0, unlink((root + ".widget_old.lock").c_str()));
  result = widgetctl(kYou, {"doctor", "--repair", "--remove-orphans"},
                     you + "conf/", root);
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_TRUE(contains(result.out, "orphan-directory: " + root +
                                       "widget_old/ (repaired)"))
      << result.out;
  EXPECT_EQ(std::vector<std::string>({"tmp"}), TempDir::listDirectory(root));
}

}  // namespace
