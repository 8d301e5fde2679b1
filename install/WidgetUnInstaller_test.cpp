// SPDX-License-Identifier: Apache-2.0
#include "install/WidgetUnInstaller.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "testing/CaptureStdout.h"
#include "testing/ChildProcess.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WorkingDirectory.h"

namespace {

// A registry file of its own and a widget root beside it.
class UnInstallerTest : public ::testing::Test {
 protected:
  UnInstallerTest()
      : env_("YRA_DATA_PATH", registry_.path() + "/"),
        root_(widgets_.path() + "/"),
        rootEnv_("WIDGET_PATH", root_) {}

  // Registers a widget called name whose directory (root + "widget_" + name)
  // holds index.html and locales/fr/index.html; returns its id.
  int addWidget(const std::string& name, bool makeDirectory = true) {
    const std::string dir = storagePath(name);
    if (makeDirectory) {
      mkdir(dir.c_str(), 0755);
      mkdir((dir + "locales").c_str(), 0755);
      mkdir((dir + "locales/fr").c_str(), 0755);
      TempDir::writeFile(dir + "index.html", "<html/>");
      TempDir::writeFile(dir + "locales/fr/index.html", "<html lang=fr/>");
    }
    SqlLite3 db;
    EXPECT_TRUE(db.isOpen());
    WidgetsData widget(0, "http://127.0.0.1/" + name + ".wgt", name,
                       "file://" + dir + "index.html", dir, 320, 240, "1.0",
                       "Widget " + name, name, "windowed", "icon.png",
                       "Author", "a@example.org", "http://example.org/");
    widget.setFiles({"index.html", "locales/fr/index.html"});
    const int id = db.insertWidget(&widget);
    EXPECT_GT(id, 0);
    db.insertLocalizedItems(id, "name", {{"default", "W"}, {"fr", "Wf"}});
    db.insertLocalizedItems(id, "description", {{"default", "D"}});
    return id;
  }

  std::string storagePath(const std::string& name) const {
    return root_ + "widget_" + name + "/";
  }

  static int count(const std::string& statement) {
    SqlLite3 db;
    if (db.query(statement) != 0 || db.getValues().empty()) return -1;
    return atoi(db.getValues()[0].c_str());
  }

  static int widgetRows(const std::string& name) {
    SqlLite3 db;
    std::vector<WidgetsData*> records = db.selectWidgetsByName(name);
    for (WidgetsData* record : records) delete record;
    return static_cast<int>(records.size());
  }

  // Runs one uninstaller for name; its whole output lands in *output.
  static int uninstall(const std::string& name, std::string* output,
                       std::string* errors = nullptr) {
    CaptureStdout err(2);
    CaptureStdout out;
    int status;
    {
      WidgetUnInstaller uninstaller(name);
      status = uninstaller.run();
    }
    *output = out.text();
    const std::string errorText = err.text();
    if (errors) *errors = errorText;
    return status;
  }

  WorkingDirectory start_;  // each test ends where it began
  TempDir registry_;
  TempDir widgets_;
  ScopedEnv env_;
  std::string root_;
  ScopedEnv rootEnv_;
};

bool isPresent(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

void execRaw(const std::string& file, const char* statement) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
  char* error = nullptr;
  const int rc = sqlite3_exec(db, statement, nullptr, nullptr, &error);
  sqlite3_free(error);
  sqlite3_close(db);
  ASSERT_EQ(SQLITE_OK, rc) << statement;
}

TEST_F(UnInstallerTest, RowPlacingTheWidgetOutsideTheRootRemovesNothing) {
  // The directory has the widget's own last name, but in another folder.
  TempDir elsewhere;
  const std::string outside = elsewhere.path() + "/widget_evil/";
  ASSERT_EQ(0, mkdir(outside.c_str(), 0755));
  TempDir::writeFile(outside + "precious", "kept");
  {
    SqlLite3 db;
    WidgetsData widget(0, "http://127.0.0.1/evil.wgt", "evil",
                       "file://" + outside + "index.html", outside, 1, 1, "",
                       "", "", "", "", "", "", "");
    ASSERT_GT(db.insertWidget(&widget), 0);
  }
  std::string output;
  EXPECT_EQ(-1, uninstall("evil", &output));
  EXPECT_EQ("Refusing to delete " + outside +
                ": it is not inside the widget root " + root_ +
                "\nNothing to clean\n",
            output);
  EXPECT_EQ("kept", TempDir::readFile(outside + "precious"));
  EXPECT_EQ(1, widgetRows("evil"));
}

TEST_F(UnInstallerTest, RootSpelledThroughALinkStillFindsItsWidgets) {
  addWidget("clock");
  TempDir links;
  const std::string link = links.path() + "/root";
  ASSERT_EQ(0, symlink(widgets_.path().c_str(), link.c_str()));
  ScopedEnv linked("WIDGET_PATH", link + "/");
  std::string output;
  EXPECT_EQ(1, uninstall("clock", &output)) << output;
  EXPECT_FALSE(isPresent(storagePath("clock")));
}

TEST_F(UnInstallerTest, DirectoryThatDidNotGoIsNotReportedDeleted) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  // Another user's widget holds a folder of root's that they cannot empty,
  // so their removal leaves the widget's directory in place.
  constexpr uid_t kUser = 65534;
  addWidget("stuck");
  const std::string dir = storagePath("stuck");
  ASSERT_EQ(0, mkdir((dir + "roots").c_str(), 0755));
  TempDir::writeFile(dir + "roots/file", "x");
  for (const std::string& path :
       {registry_.path(), registry_.path() + "/widget.db", widgets_.path(),
        dir, dir + "index.html", dir + "locales", dir + "locales/fr",
        dir + "locales/fr/index.html"}) {
    ASSERT_EQ(0, chown(path.c_str(), kUser, kUser)) << path;
  }
  ChildProcess child;
  child.start([&] {
    if (setgid(kUser) != 0 || setuid(kUser) != 0) return 77;
    int status;
    {
      WidgetUnInstaller uninstaller("stuck");
      status = uninstaller.run();
    }
    return status == -1 ? 0 : 1;
  });
  child.wait();
  const std::string output = child.out();
  EXPECT_TRUE(child.exitedWith(0)) << "status " << child.shellStatus();
  EXPECT_EQ("Try to delete directory on fileSystem : " + dir +
                "\nCould not remove the directory " + root_ +
                "widget_stuck: Directory not empty\nError : can't delete "
                "this directory : " + dir + "\nNothing to clean\n",
            output);
  EXPECT_EQ(std::string::npos, output.find("Delete OK"));
  EXPECT_TRUE(isPresent(dir + "roots/file"));
  // Root trusts only its own registry: given back before it is read.
  ASSERT_EQ(0, chown(registry_.path().c_str(), 0, 0));
  ASSERT_EQ(0, chown((registry_.path() + "/widget.db").c_str(), 0, 0));
  EXPECT_EQ(1, widgetRows("stuck"));
}

}  // namespace

TEST_F(UnInstallerTest, UnknownNameAnswersZeroAndTouchesNothing) {
  addWidget("kept");
  std::string output;
  EXPECT_EQ(0, uninstall("other", &output));
  EXPECT_EQ("Nothing to clean\n", output);
  EXPECT_TRUE(isPresent(storagePath("kept") + "index.html"));
  EXPECT_EQ(1, widgetRows("kept"));
}

TEST_F(UnInstallerTest, DirectoryRemovedByHandCannotBeUninstalledAndRowStays) {
  addWidget("gone", false);
  std::string output, errors;
  EXPECT_EQ(-1, uninstall("gone", &output, &errors));
  EXPECT_EQ("Try to delete directory on fileSystem : " + storagePath("gone") +
                "\nError : can't delete this directory : " +
                storagePath("gone") + "\nNothing to clean\n",
            output);
  EXPECT_EQ("Error opendir(): No such file or directory\n", errors);
  EXPECT_EQ(1, widgetRows("gone"));
}

TEST_F(UnInstallerTest, RemovesDirectoryAndRowButKeepsFileAndTextRows) {
  const int id = addWidget("clock");
  addWidget("other");
  const std::string ids = std::to_string(id);
  const int files = count("SELECT COUNT(*) FROM widgetFiles WHERE widgetID=" + ids);
  const int texts =
      count("SELECT COUNT(*) FROM localizedItem WHERE widgetID=" + ids);
  ASSERT_EQ(2, files);
  ASSERT_EQ(3, texts);

  std::string output;
  EXPECT_EQ(1, uninstall("clock", &output));
  EXPECT_EQ("Try to delete directory on fileSystem : " + storagePath("clock") +
                "\nDelete OK !!!\nDelete from database ...\nDelete OK !!!\n"
                "Nothing to clean\n",
            output);
  EXPECT_FALSE(isPresent(storagePath("clock")));
  EXPECT_EQ(0, widgetRows("clock"));
  EXPECT_EQ(files,
            count("SELECT COUNT(*) FROM widgetFiles WHERE widgetID=" + ids));
  EXPECT_EQ(texts,
            count("SELECT COUNT(*) FROM localizedItem WHERE widgetID=" + ids));
  EXPECT_TRUE(isPresent(storagePath("other") + "index.html"));
  EXPECT_EQ(1, widgetRows("other"));
}

TEST_F(UnInstallerTest, SecondUninstallOfTheSameNameAnswersZero) {
  addWidget("twice");
  std::string output;
  EXPECT_EQ(1, uninstall("twice", &output));
  EXPECT_EQ(0, uninstall("twice", &output));
  EXPECT_EQ("Nothing to clean\n", output);
}

TEST_F(UnInstallerTest, UnopenableRegistryAnswersMinusOneWithoutItsOwnLines) {
  addWidget("clock");
  ScopedEnv elsewhere("YRA_DATA_PATH", registry_.path() + "/missing/dir/");
  std::string output;
  EXPECT_EQ(-1, uninstall("clock", &output));
  EXPECT_EQ(std::string::npos, output.find("Try to delete"));
  ASSERT_GE(output.size(), 17u);
  EXPECT_EQ("Nothing to clean\n", output.substr(output.size() - 17));
  EXPECT_TRUE(isPresent(storagePath("clock") + "index.html"));
}

TEST_F(UnInstallerTest, DuplicateNamesAreRefusedAndNothingIsRemoved) {
  // A Widgets table without its UNIQUE constraints is accepted as it is.
  execRaw(registry_.path() + "/widget.db",
          "CREATE TABLE Widgets(id INTEGER NOT NULL,sourceURL VARCHAR(255),"
          "name VARCHAR(255),launchURL VARCHAR(255),storagePath VARCHAR(255),"
          "width INTEGER,height INTEGER,version VARCHAR(255),"
          "widgetName VARCHAR(255),widgetShorName VARCHAR(255),"
          "viewMode VARCHAR(255),icon VARCHAR(255),author VARCHAR(255),"
          "authorEmail VARCHAR(255),authorHref VARCHAR(255),PRIMARY KEY (id))");
  addWidget("twin");
  addWidget("twin");
  std::string output;
  EXPECT_EQ(-1, uninstall("twin", &output));
  EXPECT_EQ(
      "It's not possible to see this log. Database integrity problem\n"
      "'name' Field in 'Widgets' Table must be unique\n"
      "Nothing to clean\n",
      output);
  EXPECT_TRUE(isPresent(storagePath("twin") + "index.html"));
  EXPECT_EQ(2, widgetRows("twin"));
}

TEST_F(UnInstallerTest, FailedRowDeleteLeavesRowWithoutDirectory) {
  addWidget("stuck");
  execRaw(registry_.path() + "/widget.db",
          "CREATE TRIGGER keep BEFORE DELETE ON Widgets "
          "BEGIN SELECT RAISE(ABORT, 'kept'); END");
  std::string output;
  EXPECT_EQ(-1, uninstall("stuck", &output));
  EXPECT_EQ("Try to delete directory on fileSystem : " + storagePath("stuck") +
                "\nDelete OK !!!\nDelete from database ...\n"
                "Error, can't delete this widget in database !!!\n"
                "Integrity problem because widget is in database, but not in "
                "fileSystem :(\nNothing to clean\n",
            output);
  EXPECT_FALSE(isPresent(storagePath("stuck")));
  EXPECT_EQ(1, widgetRows("stuck"));
}

TEST_F(UnInstallerTest, NamesWithQuotesMatchNothingAndRemoveNothing) {
  addWidget("clock");
  addWidget("calendar");
  for (const char* name : {"x' OR '1'='1", "clock'", "'", "' OR name LIKE '%"}) {
    std::string output;
    EXPECT_EQ(0, uninstall(name, &output)) << name;
    EXPECT_EQ("Nothing to clean\n", output);
  }
  EXPECT_TRUE(isPresent(storagePath("clock") + "index.html"));
  EXPECT_TRUE(isPresent(storagePath("calendar") + "index.html"));
  EXPECT_EQ(1, widgetRows("clock"));
  EXPECT_EQ(1, widgetRows("calendar"));
}

TEST_F(UnInstallerTest, LinksInsideTheTreeAreRemovedNotFollowed) {
  TempDir outside;
  TempDir::writeFile(outside.file("precious.txt"), "keep");
  mkdir(outside.file("sub").c_str(), 0755);
  TempDir::writeFile(outside.file("sub/deep.txt"), "keep");

  addWidget("linked");
  const std::string dir = storagePath("linked");
  ASSERT_EQ(0, symlink(outside.path().c_str(), (dir + "to-dir").c_str()));
  ASSERT_EQ(0, symlink(outside.file("precious.txt").c_str(),
                       (dir + "locales/to-file").c_str()));
  ASSERT_EQ(0, symlink("/nonexistent", (dir + "dangling").c_str()));

  std::string output;
  EXPECT_EQ(1, uninstall("linked", &output));
  EXPECT_FALSE(isPresent(dir));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("precious.txt")));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("sub/deep.txt")));
}

TEST_F(UnInstallerTest, LinkAtTheTopIsRemovedItselfNotDescended) {
  TempDir outside;
  TempDir::writeFile(outside.file("precious.txt"), "keep");
  addWidget("top", false);
  const std::string link = storagePath("top");
  ASSERT_EQ(0, symlink(outside.path().c_str(),
                       link.substr(0, link.size() - 1).c_str()));

  std::string output;
  EXPECT_EQ(1, uninstall("top", &output));
  EXPECT_FALSE(isPresent(link.substr(0, link.size() - 1)));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("precious.txt")));
  EXPECT_EQ(0, widgetRows("top"));
}

TEST_F(UnInstallerTest, DanglingLinkAtTheTopFailsLikeAMissingDirectory) {
  addWidget("dangling", false);
  const std::string link = storagePath("dangling");
  ASSERT_EQ(0, symlink((root_ + "nowhere").c_str(),
                       link.substr(0, link.size() - 1).c_str()));
  std::string output, errors;
  EXPECT_EQ(-1, uninstall("dangling", &output, &errors));
  EXPECT_EQ("Error opendir(): No such file or directory\n", errors);
  EXPECT_EQ(1, widgetRows("dangling"));
}

TEST_F(UnInstallerTest, RemovesDeepTreesWithoutChangingWorkingDirectory) {
  // Somewhere of this test's own, left again when the test ends.
  ASSERT_EQ(0, chdir(widgets_.path().c_str()));
  char before[4096];
  ASSERT_NE(nullptr, getcwd(before, sizeof before));
  std::string path = widgets_.file("tree");
  mkdir(path.c_str(), 0755);
  std::string inner = path;
  for (int i = 0; i < 20; ++i) {
    inner += "/d" + std::to_string(i);
    mkdir(inner.c_str(), 0755);
    TempDir::writeFile(inner + "/f.txt", "x");
    TempDir::writeFile(inner + "/.hidden", "x");
  }
  mkdir((path + "/empty").c_str(), 0755);

  CaptureStdout out;
  WidgetUnInstaller uninstaller("unused");
  EXPECT_TRUE(uninstaller.removeWidgetDirectory(path));
  EXPECT_FALSE(isPresent(path));
  char after[4096];
  ASSERT_NE(nullptr, getcwd(after, sizeof after));
  EXPECT_STREQ(before, after);
}

TEST_F(UnInstallerTest, PathWithOrWithoutTrailingSlashIsRemoved) {
  CaptureStdout out;
  WidgetUnInstaller uninstaller("unused");
  for (const char* suffix : {"", "/", "//"}) {
    const std::string path = widgets_.file("w");
    mkdir(path.c_str(), 0755);
    TempDir::writeFile(path + "/a", "a");
    EXPECT_TRUE(uninstaller.removeWidgetDirectory(path + suffix)) << suffix;
    EXPECT_FALSE(isPresent(path)) << suffix;
  }
}

TEST_F(UnInstallerTest, PlainFileOrMissingPathIsNotADirectory) {
  CaptureStdout err(2);
  CaptureStdout out;
  WidgetUnInstaller uninstaller("unused");
  TempDir::writeFile(widgets_.file("file"), "x");
  EXPECT_FALSE(uninstaller.removeWidgetDirectory(widgets_.file("file")));
  EXPECT_TRUE(isPresent(widgets_.file("file")));
  EXPECT_FALSE(uninstaller.removeWidgetDirectory(""));
  out.text();
  EXPECT_EQ(
      "Error opendir(): Not a directory\n"
      "Error opendir(): No such file or directory\n",
      err.text());
}

TEST_F(UnInstallerTest, DestructionSaysThereIsNothingToClean) {
  CaptureStdout out;
  {
    WidgetUnInstaller uninstaller("any");
    uninstaller.clean();
  }
  EXPECT_EQ("Nothing to clean\nNothing to clean\n", out.text());
}
