// SPDX-License-Identifier: Apache-2.0
// A widget's web data belongs to its installation, in the real browser: what
// a widget stores (local storage, IndexedDB) is there at its next start, an
// update in place keeps it, and a removal (by the engine or by widgetctl)
// takes it, so that another widget later installed under the same name, from
// another address, starts with nothing.
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <string>

#include <widgetengine/WidgetEngineExtensions.h>

#include "host/WidgetBrowserTest.h"
#include "testing/ScopedEnv.h"
#include "testing/WebDataFolder.h"

namespace {

// A page that reports the secret it finds in local storage and in an
// IndexedDB record, then stores its own, and shows the results once the
// record is committed.
std::string notesPage(const std::string& secret) {
  return testPage(
      "notes", "",
      "",
      "const mine = '" + secret + "';\n"
      "function openNotes() {\n"
      "  return new Promise((ok, failed) => {\n"
      "    const request = indexedDB.open('notes', 1);\n"
      "    request.onupgradeneeded = () =>\n"
      "      request.result.createObjectStore('notes');\n"
      "    request.onsuccess = () => ok(request.result);\n"
      "    request.onerror = () => failed(request.error);\n"
      "  });\n"
      "}\n"
      "function done(transaction) {\n"
      "  return new Promise((ok, failed) => {\n"
      "    transaction.oncomplete = ok;\n"
      "    transaction.onerror = () => failed(transaction.error);\n"
      "  });\n"
      "}\n"
      "(async () => {\n"
      "  results.storage = String(localStorage.getItem('secret'));\n"
      "  localStorage.setItem('secret', mine);\n"
      "  try {\n"
      "    const db = await openNotes();\n"
      "    const read = db.transaction('notes').objectStore('notes')\n"
      "                   .get('secret');\n"
      "    results.record = await new Promise(ok => {\n"
      "      read.onsuccess = () => ok(String(read.result));\n"
      "      read.onerror = () => ok('unreadable');\n"
      "    });\n"
      "    const write = db.transaction('notes', 'readwrite');\n"
      "    write.objectStore('notes').put(mine, 'secret');\n"
      "    await done(write);\n"
      "    db.close();\n"
      "  } catch (e) {\n"
      "    results.record = 'failed: ' + e;\n"
      "  }\n"
      "  showResults();\n"
      "})();\n");
}

class WidgetDataTest : public WidgetBrowserTest {
 protected:
  WidgetDataTest()
      : dataHome_("XDG_DATA_HOME", dir.path() + "/home/data"),
        cacheHome_("XDG_CACHE_HOME", dir.path() + "/home/cache") {}

  // A package of the widget notes whose page stores secret.
  std::string notesPackage(const std::string& secret) {
    return widgetPackage("notes", "", {{"index.html", notesPage(secret)}});
  }

  // Opens address (a package to install, or the installed notes); what the
  // notes page found.
  nlohmann::json showNotes(
      const std::string& address = "widget://notes/index.html") {
    Browse run = browse({"--exit-after-load", address},
                        {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
    EXPECT_EQ(0, run.status) << run.out << run.err;
    EXPECT_EQ("widget://notes/index.html", url(run)) << run.out << run.err;
    return results(run);
  }

  // The installation's folders as the engine names them.
  static std::string folder(int kind) { return webdatatest::folder("notes", kind); }

  std::string dataPlace() const {
    return dir.path() + "/home/data/widgetengine/web-data/";
  }

 private:
  ScopedEnv dataHome_;
  ScopedEnv cacheHome_;
};

}  // namespace

TEST_F(WidgetDataTest, AnotherWidgetOfTheSameNameFindsNothingAfterRemoval) {
  HttpServer first;
  HttpServer second;  // another address
  first.serveFile("/notes.wgt", notesPackage("first secret"));
  const nlohmann::json installed = showNotes(first.url("/notes.wgt"));
  EXPECT_EQ("null", installed.value("storage", ""));
  EXPECT_EQ("undefined", installed.value("record", ""));

  // The data is kept from one start to the next, in the installation's
  // folders and not elsewhere.
  const nlohmann::json again = showNotes();
  EXPECT_EQ("first secret", again.value("storage", ""));
  EXPECT_EQ("first secret", again.value("record", ""));
  const std::string data = folder(WIDGETENGINE_WEB_DATA);
  const std::string cache = folder(WIDGETENGINE_WEB_CACHE);
  ASSERT_EQ(0u, data.find(dataPlace())) << data;
  EXPECT_EQ(0u, cache.find(dir.path() + "/home/cache/widgetengine/web-data/"))
      << cache;
  EXPECT_NE("", filesNamed(data, {""})) << data;
  // Cookies too: their store is the installation's.
  EXPECT_TRUE(TempDir::exists(data + "cookies.sqlite")) << data;
  // WebKit's own folders of the program, shared by every page it shows,
  // were never made.
  EXPECT_FALSE(TempDir::exists(dir.path() + "/home/data/widget-browser"));
  EXPECT_FALSE(TempDir::exists(dir.path() + "/home/cache/widget-browser"));

  {
    RefPtr<WebWidgetEngineDelegate> engine =
        WidgetEngineDelegate::createInstance();
    ASSERT_EQ(1, engine->deleteWidget("notes", nullptr));
  }
  EXPECT_FALSE(TempDir::exists(data)) << data;
  EXPECT_FALSE(TempDir::exists(cache)) << cache;

  second.serveFile("/notes.wgt", notesPackage("second secret"));
  const nlohmann::json stranger = showNotes(second.url("/notes.wgt"));
  EXPECT_EQ("null", stranger.value("storage", ""));
  EXPECT_EQ("undefined", stranger.value("record", ""));
  EXPECT_NE(data, folder(WIDGETENGINE_WEB_DATA));
}

// An update in place, by the engine's own call, keeps the installation
// and so its data: the new page finds what the old one stored.
TEST_F(WidgetDataTest, UpdateInPlaceKeepsTheData) {
  installWithEngine(notesPackage("first secret"));
  ASSERT_EQ("null", showNotes().value("storage", ""));
  const std::string data = folder(WIDGETENGINE_WEB_DATA);
  ASSERT_NE("", data);

  const std::string newer = notesPackage("second secret");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE,
            widgetengine_update_widget("notes", ("file://" + newer).c_str()));
  EXPECT_NE(std::string::npos,
            TempDir::readFile(root + "widget_notes/index.html").find("second secret"));

  const nlohmann::json updated = showNotes();
  EXPECT_EQ("first secret", updated.value("storage", ""));
  EXPECT_EQ("first secret", updated.value("record", ""));
  EXPECT_EQ(data, folder(WIDGETENGINE_WEB_DATA));
}

TEST_F(WidgetDataTest, RemovalByWidgetctlDeletesTheDataFolders) {
  installWithEngine(notesPackage("first secret"));
  showNotes();
  const std::string data = folder(WIDGETENGINE_WEB_DATA);
  const std::string cache = folder(WIDGETENGINE_WEB_CACHE);
  ASSERT_TRUE(TempDir::exists(data)) << data;
  ASSERT_TRUE(TempDir::exists(cache)) << cache;

  ChildProcess widgetctl;
  ASSERT_TRUE(widgetctl.start({WIDGETENGINE_BINARY_DIR "/widgetctl", "remove",
                               "notes"}));
  widgetctl.wait(std::chrono::seconds(60));
  ASSERT_TRUE(WIFEXITED(widgetctl.status())) << widgetctl.err();
  EXPECT_EQ(0, WEXITSTATUS(widgetctl.status()))
      << widgetctl.out() << widgetctl.err();
  EXPECT_FALSE(TempDir::exists(data)) << data;
  EXPECT_FALSE(TempDir::exists(cache)) << cache;
  // Nothing else of the place is touched.
  EXPECT_TRUE(TempDir::isDirectory(dataPlace()));
}

// A widget that went without its removal retiring its installation (its
// row deleted behind the engine's back): the next browser, whatever it
// shows, deletes the folders.
TEST_F(WidgetDataTest, BrowserDeletesTheDataOfWidgetsGoneMeanwhile) {
  installWithEngine(notesPackage("first secret"));
  showNotes();
  const std::string data = folder(WIDGETENGINE_WEB_DATA);
  ASSERT_TRUE(TempDir::exists(data)) << data;
  ASSERT_EQ(1, count("SELECT COUNT(*) FROM widgetInstallations "
                     "WHERE name='notes'"));
  // Another installation's folder, which no registry of this test knows,
  // is left alone.
  const std::string stranger = dataPlace() + std::string(32, 'a') + "/";
  ASSERT_EQ(0, mkdir(stranger.c_str(), 0700));

  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &db));
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, "DELETE FROM Widgets", nullptr,
                                    nullptr, nullptr));
  sqlite3_close(db);

  const std::string plain = dir.path() + "/plain.html";
  TempDir::writeFile(plain, "<!DOCTYPE html><title>plain</title>");
  Browse run = browse({"--exit-after-load", "file://" + plain});
  EXPECT_EQ(0, run.status) << run.out << run.err;
  EXPECT_FALSE(TempDir::exists(data)) << data;
  EXPECT_TRUE(TempDir::exists(stranger));
  // Found gone, the installation is forgotten.
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM widgetInstallations"));
}
