// SPDX-License-Identifier: Apache-2.0
// Where a widget installation's web data lives, on real folders: made for
// the user alone under the XDG homes, refused where another user could
// write or a link stands, removed without following links, and swept once
// the installation is gone, by the removal itself or later.
#include "install/WebData.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <widgetengine/WidgetEngineExtensions.h>

#include "install/WidgetUnInstaller.h"
#include "registry/SqlLite3.h"
#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WebDataFolder.h"

using webdatatest::folder;
using webdatatest::installationId;

namespace {

class WebDataTest : public ::testing::Test {
 protected:
  WebDataTest()
      : root_(dir_.path() + "/widgets/"),
        registryEnv_("YRA_DATA_PATH", dir_.path() + "/"),
        rootEnv_("WIDGET_PATH", root_),
        dataEnv_("XDG_DATA_HOME", dir_.path() + "/data"),
        cacheEnv_("XDG_CACHE_HOME", dir_.path() + "/cache") {
    mkdir(root_.c_str(), 0700);
  }

  // Registers a widget called name with a directory of its own.
  void addWidget(const std::string& name) {
    const std::string storage = root_ + "widget_" + name + "/";
    mkdir(storage.c_str(), 0700);
    TempDir::writeFile(storage + "index.html", "<html/>");
    SqlLite3 db;
    WidgetsData widget(0, "http://127.0.0.1/" + name + ".wgt", name,
                       "file://" + storage + "index.html", storage, 320, 240,
                       "1.0", name, name, "windowed", "", "", "", "");
    widget.setFiles({"index.html"});
    ASSERT_LT(0, db.insertWidget(&widget));
  }

  static mode_t mode(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  std::string place(const char* home) const {
    return dir_.path() + "/" + home + "/widgetengine/web-data/";
  }

  TempDir dir_;
  const std::string root_;

 private:
  ScopedEnv registryEnv_;
  ScopedEnv rootEnv_;
  ScopedEnv dataEnv_;
  ScopedEnv cacheEnv_;
};

}  // namespace

TEST_F(WebDataTest, FoldersAreMadeForTheUserAloneUnderTheXdgHomes) {
  addWidget("notes");
  const std::string token = installationId("notes");
  EXPECT_TRUE(WebData::isToken(token)) << token;

  const std::string data = folder("notes", WIDGETENGINE_WEB_DATA);
  const std::string cache = folder("notes", WIDGETENGINE_WEB_CACHE);
  EXPECT_EQ(place("data") + token + "/", data);
  EXPECT_EQ(place("cache") + token + "/", cache);
  for (const std::string& path :
       {data, cache, place("data"), place("cache"),
        dir_.path() + "/data/widgetengine", dir_.path() + "/data"}) {
    EXPECT_TRUE(TempDir::isDirectory(path)) << path;
    EXPECT_EQ(0700u, mode(path)) << path;
  }
  // The same installation, the same folders.
  EXPECT_EQ(data, folder("notes", WIDGETENGINE_WEB_DATA));
}

TEST_F(WebDataTest, HomeStandsInForXdgVariablesThatAreUnsetOrRelative) {
  ScopedEnv home("HOME", dir_.path() + "/home");
  ScopedEnv data("XDG_DATA_HOME", "relative/data");
  ScopedEnv cache("XDG_CACHE_HOME");
  WebData::Folders folders;
  const std::string token(32, 'c');
  ASSERT_TRUE(WebData::locate(token, &folders));
  EXPECT_EQ(dir_.path() + "/home/.local/share/widgetengine/web-data/" + token +
                "/",
            folders.data);
  EXPECT_EQ(dir_.path() + "/home/.cache/widgetengine/web-data/" + token + "/",
            folders.cache);
  ScopedEnv noHome("HOME");
  EXPECT_FALSE(WebData::locate(token, &folders));
}

TEST_F(WebDataTest, OnlyTokensNameFolders) {
  WebData::Folders folders;
  for (const std::string& text :
       {std::string(31, 'a'), std::string(33, 'a'), std::string(32, 'A'),
        std::string("../../../../../../../../../../etc"), std::string(""),
        std::string(30, 'a') + "/."}) {
    EXPECT_FALSE(WebData::isToken(text)) << text;
    EXPECT_FALSE(WebData::locate(text, &folders)) << text;
  }
  EXPECT_EQ(nullptr, widgetengine_web_data_folder(nullptr, WIDGETENGINE_WEB_DATA));
  addWidget("notes");
  EXPECT_EQ(nullptr, widgetengine_web_data_folder("notes", 3));
  EXPECT_EQ(nullptr, widgetengine_installation_id(nullptr));
}

TEST_F(WebDataTest, PlaceThatAnotherUserCouldWriteIsRefusedWithAReason) {
  addWidget("notes");
  ASSERT_NE("", folder("notes", WIDGETENGINE_WEB_DATA));
  ASSERT_EQ(0, chmod(place("data").c_str(), 0777));
  CaptureStdout out;
  EXPECT_EQ("", folder("notes", WIDGETENGINE_WEB_DATA));
  EXPECT_NE(std::string::npos,
            out.text().find("No web data folder for widget notes: "))
      << out.text();
  EXPECT_NE(std::string::npos, out.text().find(place("data").substr(
                                   0, place("data").size() - 1)))
      << out.text();
}

TEST_F(WebDataTest, LinkInAFoldersPlaceIsRefusedAndRemovedAlone) {
  addWidget("notes");
  const std::string token = installationId("notes");
  ASSERT_NE("", folder("notes", WIDGETENGINE_WEB_DATA));
  const std::string target = dir_.path() + "/elsewhere";
  ASSERT_EQ(0, mkdir(target.c_str(), 0700));
  TempDir::writeFile(target + "/keep", "kept");
  ASSERT_EQ(0, rmdir((place("data") + token).c_str()));
  ASSERT_EQ(0, symlink(target.c_str(), (place("data") + token).c_str()));
  {
    CaptureStdout out;
    EXPECT_EQ("", folder("notes", WIDGETENGINE_WEB_DATA));
    EXPECT_NE(std::string::npos, out.text().find("is not a folder"))
        << out.text();
  }

  bool removed = false;
  std::string reason;
  EXPECT_TRUE(WebData::remove(token, &removed, &reason)) << reason;
  EXPECT_TRUE(removed);
  EXPECT_FALSE(TempDir::exists(place("data") + token));
  EXPECT_FALSE(TempDir::exists(place("cache") + token));
  EXPECT_EQ("kept", TempDir::readFile(target + "/keep"));
  // Nothing left to remove.
  EXPECT_TRUE(WebData::remove(token, &removed, &reason)) << reason;
  EXPECT_FALSE(removed);
}

TEST_F(WebDataTest, RemovalTakesTheFoldersAndTheNextSweepForgetsThem) {
  addWidget("notes");
  addWidget("other");
  const std::string data = folder("notes", WIDGETENGINE_WEB_DATA);
  const std::string cache = folder("notes", WIDGETENGINE_WEB_CACHE);
  const std::string kept = folder("other", WIDGETENGINE_WEB_DATA);
  ASSERT_NE("", data);
  // What WebKit leaves: folders in folders, and a link out that must not
  // be followed.
  ASSERT_EQ(0, mkdir((data + "localstorage").c_str(), 0700));
  TempDir::writeFile(data + "localstorage/widget_notes_0.localstorage", "x");
  TempDir::writeFile(dir_.path() + "/outside", "outside");
  ASSERT_EQ(0, symlink((dir_.path() + "/outside").c_str(),
                       (data + "localstorage/link").c_str()));
  TempDir::writeFile(cache + "cached", "y");

  WidgetUnInstaller uninstaller("notes");
  EXPECT_EQ(1, uninstaller.run());
  EXPECT_FALSE(TempDir::exists(data)) << data;
  EXPECT_FALSE(TempDir::exists(cache)) << cache;
  EXPECT_TRUE(TempDir::isDirectory(kept)) << kept;
  EXPECT_EQ("outside", TempDir::readFile(dir_.path() + "/outside"));

  // The removal kept the retired installation, in case a browser that still
  // showed the widget writes its folders again; a sweep that finds them
  // gone forgets it.
  SqlLite3 db;
  EXPECT_EQ(1u, db.retiredInstallations().size());
  EXPECT_EQ(1, widgetengine_sweep_web_data());
  EXPECT_TRUE(db.retiredInstallations().empty());
  EXPECT_EQ(0, widgetengine_sweep_web_data());
  EXPECT_TRUE(TempDir::isDirectory(kept)) << kept;
}

// A host that never asked where web data lives: a removal writes the lines
// it always wrote, and the registry gets no table of installations.
TEST_F(WebDataTest, RemovalForAHostThatNeverAskedIsAsBefore) {
  addWidget("notes");
  std::string lines;
  {
    CaptureStdout out;
    WidgetUnInstaller uninstaller("notes");
    EXPECT_EQ(1, uninstaller.run());
    lines = out.text();
  }
  EXPECT_EQ("Try to delete directory on fileSystem : " + root_ +
                "widget_notes/\nDelete OK !!!\nDelete from database ...\n"
                "Delete OK !!!\n",
            lines.substr(0, lines.find("Nothing to clean")));
  EXPECT_FALSE(TempDir::exists(dir_.path() + "/data"));
  SqlLite3 db;
  EXPECT_EQ("", db.installationToken("notes", false));
  EXPECT_TRUE(db.retiredInstallations().empty());
}

TEST_F(WebDataTest, SweepWithoutARegistryMakesNone) {
  ScopedEnv elsewhere("YRA_DATA_PATH", dir_.path() + "/none/");
  EXPECT_EQ(0, widgetengine_sweep_web_data());
  EXPECT_FALSE(TempDir::exists(dir_.path() + "/none/widget.db"));
}
